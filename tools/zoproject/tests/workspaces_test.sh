#!/usr/bin/env bash
# zoproject workspaces: lists the workspace an ended process left, saves it to its source.
set -euo pipefail
zoproject=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export TMPDIR=$scratch/tmp
# Process ids stop far below 2^22 on Linux, so 4999999 never runs.
workspace=zo_project_model_4999999_0
mkdir -p "$TMPDIR/$workspace/docs"
echo "unsaved work" >"$TMPDIR/$workspace/docs/notes.txt"
printf '{"source":"%s","format":3}' "$scratch/notes.tar" >"$TMPDIR/.$workspace.source"

"$zoproject" workspaces | grep -q "^$workspace	process 4999999	.*	$scratch/notes.tar\$"
"$zoproject" workspaces recover "$workspace"
[[ $(tar -xOf "$scratch/notes.tar" docs/notes.txt) == "unsaved work" ]]
[[ -z $(ls -A "$TMPDIR") ]]

#!/usr/bin/env bash
# zoproject status lists the archive workspace an ended process left; recover --workspace saves
# it to its source archive and removes it.
set -euo pipefail
zoproject=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export TMPDIR=$scratch/tmp
# Process ids stop at 2^22 on Linux, so 4999999 never runs.
workspace=zo_project_model_4999999_0
mkdir -p "$TMPDIR/$workspace/docs" "$scratch/project"
echo "unsaved work" >"$TMPDIR/$workspace/docs/notes.txt"
printf '{"source":"%s","format":3}' "$scratch/notes.tar" >"$TMPDIR/.$workspace.source"

# It belongs to the directory of its source archive, and there alone counts.
status=0
"$zoproject" status "$scratch" >"$scratch/out" || status=$?
[[ $status -eq 3 ]]
grep -q "^  $workspace  ($scratch/notes.tar, modified .*, process 4999999)\$" "$scratch/out"
"$zoproject" recover --workspace "$workspace"
[[ $(tar -xOf "$scratch/notes.tar" docs/notes.txt) == "unsaved work" ]]
[[ -z $(ls -A "$TMPDIR") ]]
"$zoproject" status "$scratch/project" >/dev/null

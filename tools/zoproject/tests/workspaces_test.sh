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
# Loaded from an archive that another program has replaced since.
tar -cf "$scratch/notes.tar" -T /dev/null
version="$(stat -c '%d %i %s %Y' "$scratch/notes.tar") $(date -r "$scratch/notes.tar" +%-N)"
printf '{"source":"%s","format":3,"version":"%s"}' "$scratch/notes.tar" "$version" >"$TMPDIR/.$workspace.source"
echo "another program's" >"$scratch/notes.tar"

# It belongs to the directory of its source archive, and there alone counts.
status=0
"$zoproject" status "$scratch" >"$scratch/out" || status=$?
[[ $status -eq 3 ]]
grep -q "^  $workspace  ($scratch/notes.tar, modified .*, process 4999999)\$" "$scratch/out"
if "$zoproject" recover --workspace "$workspace" 2>/dev/null; then exit 1; fi
[[ $(cat "$scratch/notes.tar") == "another program's" ]]
"$zoproject" recover --force --workspace "$workspace"
[[ $(tar -xOf "$scratch/notes.tar" docs/notes.txt) == "unsaved work" ]]
[[ -z $(ls -A "$TMPDIR") ]]
"$zoproject" status "$scratch/project" >/dev/null

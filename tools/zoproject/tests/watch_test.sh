#!/usr/bin/env bash
# zoproject watch: one JSON line per change, paths relative to the directory, status 0 on SIGINT,
# status 1 for a missing directory.
set -euo pipefail
zoproject=$1
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/tree"

"$zoproject" watch "$scratch/tree" --interval 0.05 --json >"$scratch/out" &
watcher=$!
# Files made before the watcher's first snapshot are absorbed; keep adding until one is heard.
for i in $(seq 100); do
  echo "$i" >"$scratch/tree/file $i"
  sleep 0.1
  grep -q . "$scratch/out" && break
done
kill -INT "$watcher"
wait "$watcher"
grep -qx '{"event":"added","path":"file [0-9]*"}' "$scratch/out"

status=0
"$zoproject" watch "$scratch/missing" 2>/dev/null || status=$?
[[ $status -eq 1 ]]

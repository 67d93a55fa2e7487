#!/usr/bin/env bash
# The README's C++ examples: every line the README quotes is a line of a program in examples/,
# and those programs do what the README says, run on scratch projects.
set -euo pipefail
source_dir=$1
bin=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export TMPDIR=$scratch/tmp LC_ALL=C
mkdir "$TMPDIR"

trimmed() { sed 's/^[[:space:]]*//; s/[[:space:]]*$//' | grep -v '^$' | sort -u; }
awk '/^```/ { quoting = ($0 == "```cpp"); next } quoting' "$source_dir/README.md" | trimmed \
  >"$scratch/quoted"
cat "$source_dir"/examples/*.cpp | trimmed >"$scratch/written"
unquoted=$(comm -23 "$scratch/quoted" "$scratch/written")
[[ -z $unquoted ]] || { printf 'README lines in no example:\n%s\n' "$unquoted" >&2; exit 1; }

# A swap file of a process that ended (ids stop at 2^22) is taken over, then replaced by the
# edit and committed: no swap file is left.
mkdir -p "$scratch/project/docs"
echo "old" >"$scratch/project/docs/main.xml"
echo "crashed run" >"$scratch/project/docs/.main.xml.4999999.csp"
"$bin/crash_safe_edit" "$scratch/project"
[[ $(cat "$scratch/project/docs/main.xml") == "<main/>" ]]
[[ -z $(find "$scratch/project" -name '*.csp') ]]

mkdir -p "$scratch/report/docs"
echo "old" >"$scratch/report/docs/main.xml"
echo "kept" >"$scratch/report/notes.txt"
"$bin/zoproject" pack --quiet "$scratch/report" "$scratch/report.tar.gz"
"$bin/archive_project" "$scratch/report.tar.gz"
[[ $(tar -xzOf "$scratch/report.tar.gz" docs/main.xml) == "<main/>" ]]
[[ $(tar -xzOf "$scratch/report.tar.gz" notes.txt) == "kept" ]]
[[ -z $(ls -A "$TMPDIR") ]]

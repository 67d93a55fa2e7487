#!/usr/bin/env bash
# zoproject as scripts use archivers: stop signals clean up and end the program by the signal,
# nothing is clobbered, nothing of an edit in progress is packed, output errors fail.
set -euo pipefail
zoproject=$1
completion=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export TMPDIR=$scratch/tmp
mkdir "$TMPDIR"
run() { status=0; "$@" || status=$?; }
fail() { echo "FAILED: $*" >&2; exit 1; }
left() { ls -A "$@" | tr '\n' ' '; }

# Each stop signal, once the pack reads its file: status 128 + signal, no archive.
mkdir -p "$scratch/signal/big"
head -c 4M /dev/urandom >"$scratch/signal/big/blob"
for signal in INT:130 TERM:143 HUP:129 PIPE:141; do
  "$zoproject" pack "$scratch/signal/big" "$scratch/signal/big.tar.xz" 2>/dev/null &
  for _ in $(seq 500); do
    ls -l "/proc/$!/fd" 2>/dev/null | grep -q "$scratch/signal/big/blob" && break
    sleep 0.01
  done
  kill -s "${signal%:*}" $!
  run wait $!
  [[ $status -eq ${signal#*:} && $(left "$scratch/signal") == "big " ]] || fail "pack, SIG$signal: $status"
done
# Ctrl-C while an unpack waits for the rest of its archive.
"$zoproject" pack --quiet "$scratch/signal/big" "$scratch/big.tar"
mkfifo "$scratch/signal/fifo"
"$zoproject" unpack --format tar "$scratch/signal/fifo" "$scratch/signal/out" 2>/dev/null &
exec 3>"$scratch/signal/fifo"
head -c 100000 "$scratch/big.tar" >&3
sleep 0.2
kill -INT $!
tail -c +100001 "$scratch/big.tar" >&3 2>/dev/null || true
exec 3>&-
run wait $!
[[ $status -eq 130 && $(left "$scratch/signal") == "big fifo " ]] || fail "unpack, SIGINT: $status"

# A listing cut short by its reader leaves nothing; one that cannot be written fails.
mkdir "$scratch/many"
for i in $(seq 3000); do : >"$scratch/many/a file with a name long enough to fill pipes $i"; done
"$zoproject" pack "$scratch/many" "$scratch/many.tar"
run "$zoproject" ls "$scratch/many.tar" >/dev/full 2>/dev/null
[[ $status -eq 1 ]] || fail "ls >/dev/full: $status"
set +o pipefail
"$zoproject" ls "$scratch/many.tar" | head -1 >/dev/null
status=${PIPESTATUS[0]}
set -o pipefail
[[ $status -eq 141 && -z $(left "$TMPDIR") ]] || fail "ls | head -1: $status"

# Pending edits are not packed: a running process's swap file and owner mark, the backup of a
# finished commit; a backup without its source holds the only copy and is. -C and --exclude.
project=$scratch/project
mkdir -p "$project/docs" "$project/build"
echo saved >"$project/docs/main.xml"
echo edit >"$project/docs/.main.xml.$$.csp"
echo copy >"$project/docs/.main.xml.$$.csp.Ab12Cd"
echo old >"$project/docs/main.xmlbck"
echo only >"$project/lost.txtbck"
echo mark >"$project/.zo-owner-$$.Xy12Zw"
echo log >"$project/build/out.log"
ln -s docs/main.xml "$project/latest"
echo unsaved >"$project/.lost.txt.4999999.csp"
[[ $("$zoproject" -C "$scratch" pack --exclude build project project.tar) == "left out 1 swap file of ended editors"* ]]
[[ $(tar -tf "$scratch/project.tar" 2>/dev/null | sort | tr '\n' ' ') == "docs/ docs/main.xml latest lost.txtbck " ]] ||
  fail "packed: $(tar -tf "$scratch/project.tar")"
[[ $("$zoproject" ls "$scratch/project.tar") == *$'\n -  latest -> docs/main.xml\n'*"2 files, 1 link, 11 bytes" ]]

# An existing file is refused, kept with -k, replaced with --force; a line tells which.
mkdir -p "$scratch/copy/docs"
echo mine >"$scratch/copy/docs/main.xml"
run "$zoproject" unpack "$scratch/project.tar" "$scratch/copy" 2>"$scratch/err"
grep -q "entry 'docs/main.xml': the destination already holds it; nothing was unpacked" "$scratch/err"
[[ $status -eq 1 && $(left "$scratch/copy") == "docs " && $(cat "$scratch/copy/docs/main.xml") == mine ]]
[[ $("$zoproject" unpack -k "$scratch/project.tar" "$scratch/copy") == "kept 1 existing file: docs/main.xml" ]]
[[ $(cat "$scratch/copy/docs/main.xml") == mine && -f $scratch/copy/lost.txtbck ]]
"$zoproject" unpack --force "$scratch/project.tar" "$scratch/copy" | grep -q "^replaced 3 existing files"
[[ $(cat "$scratch/copy/docs/main.xml") == saved ]]

# A clean directory beside the workspace of a crashed archive project has nothing to recover.
mkdir -p "$TMPDIR/zo_project_model_4999999_0" "$scratch/clean"
printf '{"source":"%s","format":3}' "$scratch/notes.tar" >"$TMPDIR/.zo_project_model_4999999_0.source"
"$zoproject" status "$scratch/clean" | grep -q "^Archive workspaces of other directories"

# An empty swap file over a source that is not, only with --force; a file that merely ends like
# a backup, beside a swap file whose owner left no note of a source, is the user's and stays.
recovered=$scratch/recovered
mkdir "$recovered"
echo kept >"$recovered/a.txt"
: >"$recovered/.a.txt.4999999.csp"
echo saved >"$recovered/b.txtbck"
echo work >"$recovered/.b.txt.4999998.csp"
run "$zoproject" status "$recovered" >/dev/null
[[ $status -eq 3 && ! -e $recovered/b.txt ]] || fail "status changed the project"
run "$zoproject" recover --all "$recovered" >"$scratch/out" 2>/dev/null
[[ $status -eq 1 && $(cat "$recovered/a.txt") == kept ]] || fail "empty swap file recovered"
"$zoproject" recover --all --force "$recovered" >/dev/null
[[ ! -s $recovered/a.txt && $(cat "$recovered/b.txt") == work && $(cat "$recovered/b.txtbck") == saved ]]

# Metadata lines say what keys and values hold; arguments are bytes, also in messages.
"$zoproject" meta "$project" 'a=b' $'two\nlines'
[[ $("$zoproject" meta "$project") == 'a\=b=two\nlines' ]]
run "$zoproject" ls "$scratch/missing"$'\xff'.tar 2>"$scratch/err"
[[ $status -eq 1 ]]
LC_ALL=C grep -qF "missing"$'\xff'".tar'" "$scratch/err"

# Errors name what they are about.
check() {
  local expected=$1 message=$2
  shift 2
  run "$zoproject" "$@" 2>"$scratch/err" >/dev/null
  [[ $status -eq $expected ]] && grep -qF -- "$message" "$scratch/err" || fail "$* gave $status: $(cat "$scratch/err")"
}
mkdir "$scratch/empty.zip"
check 1 "'/missing': cannot open the directory" recover --all /missing
check 1 "'/missing': cannot change into it" -C /missing status
check 1 "is a directory, which an archive file cannot replace" pack "$project" "$scratch/empty.zip"
check 2 "a metadata key cannot be empty" meta "$project" "" value
check 2 "exclude each other" unpack -f -k "$scratch/project.tar" "$scratch/copy"
[[ $("$zoproject" help help) == "usage: zoproject help [COMMAND]"* ]]

# A directory that cannot be read is an error, not an empty one.
if [[ $(id -u) -eq 0 ]] && command -v setpriv >/dev/null; then
  chmod 755 "$scratch"
  mkdir -m 700 "$scratch/locked"
  run setpriv --reuid=65534 --regid=65534 --clear-groups "$zoproject" status "$scratch/locked" 2>/dev/null
  [[ $status -eq 1 ]] || fail "status of an unreadable directory: $status"
fi

# diff against patch: what it prints turns the source into the swap file, seeded edits of
# lines that repeat, with and without a last line break.
for seed in $(seq 20); do
  awk -v seed="$seed" 'BEGIN { srand(seed); for (i = 0; i < 40; i++) print int(rand() * 6) }' >"$project/text"
  ((seed % 4)) || truncate -s -1 "$project/text"
  awk -v seed="$seed" 'BEGIN { srand(seed * 7) } { r = rand(); if (r < 0.1) next; if (r < 0.2) print "new"; print }
    END { if (seed % 3 == 0) printf "end" }' "$project/text" >"$project/.text.4999999.csp"
  "$zoproject" diff "$project" text | patch -s -o "$scratch/patched" "$project/text"
  cmp -s "$scratch/patched" "$project/.text.4999999.csp" || fail "diff, seed $seed"
done

: >"$project/empty"
echo x >"$project/.empty.4999999.csp"
[[ $("$zoproject" diff "$project" empty) == $'--- empty\n+++ .empty.4999999.csp\n@@ -0,0 +1 @@\n+x' ]]

# Help fits 80 columns and the completion offers every option.
for command in $("$zoproject" --help | awk '/^Commands:/ { on = 1; next } on && NF == 0 { exit } on { print $1 }'); do
  help=$("$zoproject" help "$command")
  [[ -z $(awk 'length > 80' <<<"$help") ]] || fail "help $command is wider than 80 columns"
  for option in $(grep -oE -- '--[a-z-]+' <<<"$help" | sort -u | awk '$0 != "--help"'); do
    grep -qE -- "^ *$command\).*$option( |\")" "$completion" || fail "no completion of $command $option"
  done
done

# The demo works in a new or empty directory only, and leaves nothing beside it.
mkdir -p "$scratch/demo/mine"
echo "the user's" >"$scratch/demo/mine/notes.txt"
run "$zoproject" demo "$scratch/demo/mine" >/dev/null 2>&1
[[ $status -eq 1 && $(cat "$scratch/demo/mine/notes.txt") == "the user's" ]] || fail "demo in a full directory"
"$zoproject" demo "$scratch/demo/new" >/dev/null
[[ $(left "$scratch/demo") == "mine new " ]] || fail "demo left $(left "$scratch/demo")"

# A file another program writes into the destination before the unpacked tree takes its place
# stays with the previous tree, and the unpack fails naming where that is.
if command -v strace >/dev/null; then
  mkdir -p "$scratch/late/source" "$scratch/late/destination"
  echo new >"$scratch/late/source/a.txt"
  echo "the user's" >"$scratch/late/destination/kept.txt"
  "$zoproject" pack --quiet "$scratch/late/source" "$scratch/late/a.tar"
  ASAN_OPTIONS=detect_leaks=0 strace -f -o /dev/null -e inject=renameat2:delay_enter=500000 \
    "$zoproject" unpack --quiet "$scratch/late/a.tar" "$scratch/late/destination" 2>"$scratch/late/err" &
  sleep 0.25
  echo "another program's" >"$scratch/late/destination/late.txt"
  run wait $!
  previous=$(compgen -G "$scratch/late/.destination.zo-replaced-*" || true)
  [[ $status -eq 1 && $(cat "$previous/late.txt") == "another program's" ]] &&
    grep -qF "stays in '$previous'" "$scratch/late/err" || fail "unpack beside another program: $status"
fi

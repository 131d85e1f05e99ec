#!/usr/bin/env bash
# Runs the examples as a user would: pack two files and a note, count the lines
# of the text entries, check the output, and check that packing again over the
# archive is refused without touching it.
set -euo pipefail
pack=$1
count_lines=$2
low_level=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf 'one\ntwo\nthree\n' >"$work/poem 100%.txt"
printf 'no newline' >"$work/data.bin"
"$pack" "$work/out.zip" "$work/poem 100%.txt" "$work/data.bin"
expected=$'notes/read me #1.txt: 1\npoem 100%.txt: 3'
actual=$("$count_lines" "$work/out.zip")
if [ "$actual" != "$expected" ]; then
  printf 'count_lines printed:\n%s\nexpected:\n%s\n' "$actual" "$expected" >&2
  exit 1
fi
before=$(sha256sum <"$work/out.zip")
if "$pack" "$work/out.zip" 2>"$work/err"; then
  echo "pack replaced an existing archive" >&2
  exit 1
fi
grep -q "The ZIP archive already exists. ($work/out.zip)" "$work/err" || { cat "$work/err" >&2; exit 1; }
[ "$(sha256sum <"$work/out.zip")" = "$before" ]
[ "$("$low_level")" = $'docs/hello #1.txt 5\nhello' ]
echo "examples: ok"

#!/usr/bin/env bash
# minizip's patches (third_party/minizip/patches): configuring a copy of the
# project whose series holds a patch that does not apply, or names one that is
# missing, stops with an error naming that patch; the unchanged series applies.
# usage: minizip_patches_test.sh SOURCE ZLIB_SOURCE WORKDIR
set -euo pipefail
source=$1 zlib=$2 work=$3
fail() { echo "minizip_patches_test: $*" >&2; exit 1; }
rm -rf "$work"
mkdir -p "$work"

copy() { # name: a copy of the project's sources (no build trees, no fetched source, no git metadata)
  mkdir -p "$work/$1"
  tar -C "$source" --exclude='./build*' --exclude=./third_party/zlib-src --exclude=./.git -cf - . | tar -C "$work/$1" -xf -
}
configure() { # name
  cmake -S "$work/$1" -B "$work/build-$1" -G Ninja -DZIPUTIL_BUILD_TESTS=OFF -DZIPUTIL_BUILD_BENCH=OFF \
    "-DZIPUTIL_ZLIB_SOURCE_DIR=$zlib" 2>&1
}
patches=third_party/minizip/patches

copy good
out=$(configure good) || fail "the project's own series does not apply: $out"
for f in unzip.c zip.c; do
  [ -s "$work/build-good/minizip/$f" ] || fail "no patched $f"
  ! cmp -s "$work/build-good/minizip/$f" "$zlib/contrib/minizip/$f" || fail "$f was not patched"
done
echo "good: the series applies"

copy broken
victim=$(sed -n 4p "$work/broken/$patches/series")
# The first line of context the patch expects (after its first hunk header) no longer matches.
awk '!done && hunk && /^ ./ { $0 = $0 " /* changed */"; done = 1 } /^@@/ { hunk = 1 } { print }' \
  "$work/broken/$patches/$victim" > "$work/victim" && mv "$work/victim" "$work/broken/$patches/$victim"
if out=$(configure broken); then fail "broken: configuring succeeded"; fi
out=$(tr -s ' \n' ' ' <<<"$out")
grep -qF "minizip patch $victim (series) does not apply to $zlib/contrib/minizip" <<<"$out" ||
  fail "broken: the error does not name the patch: $out"
grep -qF "FAILED" <<<"$out" || fail "broken: the error does not show patch's output: $out"
echo "broken: refused, naming $victim"

copy missing
echo 9999-no-such-change.patch >> "$work/missing/$patches/series"
if out=$(configure missing); then fail "missing: configuring succeeded"; fi
out=$(tr -s ' \n' ' ' <<<"$out")
grep -qF "minizip patch 9999-no-such-change.patch, listed in series, does not exist" <<<"$out" ||
  fail "missing: the error does not name the patch: $out"
echo "missing: refused, naming the patch"

#!/usr/bin/env bash
# Configuring with -DZIPUTIL_ZLIB_SOURCE_DIR never downloads: a missing tree,
# a tree without minizip's files and a tree of another zlib version each stop
# configuring with an error naming the path and what is wrong, and nothing is
# fetched (apt-get and the fetch script are replaced by ones that leave a mark).
# usage: zlib_source_test.sh SOURCE WORKDIR
set -euo pipefail
source=$1 work=$2
fail() { echo "zlib_source_test: $*" >&2; exit 1; }
rm -rf "$work"
mkdir -p "$work/bin"
for tool in apt-get apt curl wget; do
  printf '#!/bin/sh\ntouch "%s/downloaded"\nexit 1\n' "$work" > "$work/bin/$tool"
  chmod +x "$work/bin/$tool"
done

fake_tree() { # dir, zlib version, minizip files...
  local dir=$1 version=$2
  shift 2
  mkdir -p "$dir/contrib/minizip"
  printf '#define ZLIB_VERSION "%s"\n' "$version" > "$dir/zlib.h"
  local f
  for f in "$@"; do : > "$dir/contrib/minizip/$f"; done
}
all=(ioapi.c ioapi.h unzip.c unzip.h zip.c zip.h)
fake_tree "$work/zlib 1.2.13" 1.2.13 "${all[@]}"
fake_tree "$work/no zip.c" 1.3.1 ioapi.c ioapi.h unzip.c unzip.h zip.h

before=$(cd "$work" && find . -path ./build-\* -prune -o -print | sort)
check() { # name, path, expected text of the error
  local name=$1 path=$2 expected=$3 out
  if out=$(PATH="$work/bin:$PATH" cmake -S "$source" -B "$work/build-$name" -G Ninja -DZIPUTIL_BUILD_TESTS=OFF \
             -DZIPUTIL_BUILD_BENCH=OFF "-DZIPUTIL_ZLIB_SOURCE_DIR=$path" 2>&1); then
    fail "$name: configuring succeeded"
  fi
  out=$(tr -s ' \n' ' ' <<<"$out")  # CMake wraps long messages
  grep -qF "ZIPUTIL_ZLIB_SOURCE_DIR=$path is not an unpacked zlib 1.3.1 source tree" <<<"$out" ||
    fail "$name: the error does not name the path: $out"
  grep -qF "$expected" <<<"$out" || fail "$name: the error does not say '$expected': $out"
  if grep -q 'fetching' <<<"$out"; then fail "$name: configuring tried to fetch: $out"; fi
  [ ! -e "$work/downloaded" ] || fail "$name: something was downloaded"
  [ "$(cd "$work" && find . -path ./build-\* -prune -o -print | sort)" = "$before" ] || fail "$name: files appeared or vanished"
  echo "$name: refused as expected"
}
check missing "$work/no such tree" "source tree: no such folder."
check version "$work/zlib 1.2.13" "it is zlib 1.2.13, not 1.3.1"
check incomplete "$work/no zip.c" "it lacks $work/no zip.c/contrib/minizip/zip.c"

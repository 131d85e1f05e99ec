#!/usr/bin/env bash
# Builds tests/tools/consumer against an installed prefix alone and runs it.
# usage: package_test.sh cmake|pkgconfig PREFIX WORKDIR [SANITIZERS]
set -euo pipefail
mode=$1 prefix=$2 work=$3 sanitize=${4:-}
here=$(cd "$(dirname "$0")" && pwd)
rm -rf "$work"
mkdir -p "$work"
flags=()
if [ -n "$sanitize" ]; then
  flags+=("-DCMAKE_CXX_FLAGS=-fsanitize=$sanitize" "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=$sanitize")
fi
if [ "$mode" = pkgconfig ]; then
  export PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name ziputil.pc | head -n1)")
  flags+=(-DUSE_PKG_CONFIG=ON)
else
  flags+=("-DCMAKE_PREFIX_PATH=$prefix")
fi
cmake -S "$here/consumer" -B "$work/build" "${flags[@]}"
cmake --build "$work/build"
# With the CMake package the build's run path finds the installed libraries;
# pkg-config gives none, so that program is pointed at the prefix's libraries.
libdir=$(dirname "$(find "$prefix" -name 'libziputil.so' | head -n1)")
archive="$work/made by consumer #1.zip"
if [ "$mode" = pkgconfig ]; then
  output=$(LD_LIBRARY_PATH=$libdir "$work/build/consumer" "$archive")
else
  output=$(env -u LD_LIBRARY_PATH "$work/build/consumer" "$archive")
fi
echo "$output"
[ "$output" = "hello.txt: installed package works" ]
unzip -t "$archive"

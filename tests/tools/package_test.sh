#!/usr/bin/env bash
# Builds tests/tools/consumer against an installed prefix alone and runs it:
# through the CMake package or through pkg-config, beside libzip (whose header
# is also zip.h), with -Wall -Wextra -Wconversion -Werror. Checks that the
# package adds only the prefix's include folder (never its minizip folder),
# that wxWidgets' headers come in as system headers, that only wxWidgets' base
# library is linked, and that the program, its headers and the library agree on
# the version.
# usage: package_test.sh cmake|pkgconfig PREFIX WORKDIR [SANITIZERS]
set -euo pipefail
mode=$1 prefix=$2 work=$3 sanitize=${4:-}
here=$(cd "$(dirname "$0")" && pwd)
fail() { echo "package_test: $*" >&2; exit 1; }
rm -rf "$work"
mkdir -p "$work"
flags=()
if [ -n "$sanitize" ]; then
  flags+=("-DCMAKE_CXX_FLAGS=-fsanitize=$sanitize" "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=$sanitize")
fi
pcdir=$(dirname "$(find "$prefix" -name ziputil.pc | head -n1)")
wx_includes=$(wx-config --cxxflags | tr ' ' '\n' | sed -n 's/^-I//p')
if [ "$mode" = pkgconfig ]; then
  export PKG_CONFIG_PATH=$pcdir
  flags+=(-DUSE_PKG_CONFIG=ON)
  cflags=$(pkg-config --cflags ziputil)
  echo "pkg-config --cflags ziputil: $cflags"
  case "$cflags" in *minizip*) fail "the .pc files add minizip's folder to the include path" ;; esac
  includes=$(tr ' ' '\n' <<<"$cflags" | sed -n 's/^-I//p')
  [ "$(realpath "$includes")" = "$(realpath "$prefix/include")" ] || fail "-I other than the prefix's include folder: $includes"
  for d in $wx_includes; do
    grep -q -- "-isystem$d\( \|$\)" <<<"$cflags" || fail "wxWidgets' $d is not given with -isystem"
  done
  requires=$(pkg-config --print-requires ziputil | tr '\n' ' ')
  [ "$requires" = "tal zlib " ] || fail "ziputil.pc requires '$requires', not 'tal zlib '"
  # CMake makes every imported include folder a system one; a plain compiler
  # line takes the prefix's include folder as the .pc gives it (-I), so the
  # installed headers (minizip's among them) face the warnings themselves.
  mkdir -p "$work/plain"
  # shellcheck disable=SC2046
  c++ -std=c++17 -Wall -Wextra -Wconversion -Wsign-conversion -Wold-style-cast -Wshadow -Werror \
    ${sanitize:+-fsanitize=$sanitize} $(pkg-config --cflags ziputil libzip) \
    "$here/consumer/consumer.cpp" -o "$work/plain/consumer" $(pkg-config --libs ziputil libzip)
else
  flags+=("-DCMAKE_PREFIX_PATH=$prefix")
  # The package refuses a wxWidgets other than the one it was built with, by name.
  mkdir -p "$work/other-wx"
  printf '#!/bin/sh\necho 3.0.5\n' > "$work/other-wx/wx-config"
  chmod +x "$work/other-wx/wx-config"
  if out=$(cmake -S "$here/consumer" -B "$work/other-wx/build" "${flags[@]}" \
             "-DZIPUTIL_WX_CONFIG=$work/other-wx/wx-config" 2>&1); then
    fail "find_package(ziputil) accepted wxWidgets 3.0.5"
  fi
  out=$(tr -s ' \n' ' ' <<<"$out")
  grep -qF "ziputil was built with wxWidgets $(wx-config --version); $work/other-wx/wx-config is version 3.0.5" <<<"$out" ||
    fail "find_package(ziputil) with wxWidgets 3.0.5: $out"
fi
cmake -S "$here/consumer" -B "$work/build" "${flags[@]}"
cmake --build "$work/build" --verbose
command=$(python3 -c '
import json, sys
for c in json.load(open(sys.argv[1])):
    if c["file"].endswith("consumer.cpp"):
        print(c["command"])' "$work/build/compile_commands.json")
case "$command" in *minizip*) fail "minizip's folder is on the consumer's include path: $command" ;; esac
for d in $wx_includes; do
  grep -q -- "-isystem \?$d\( \|$\)" <<<"$command" || fail "wxWidgets' $d is not a system include folder: $command"
  if grep -q -- "-I \?$d\( \|$\)" <<<"$command"; then fail "wxWidgets' $d given with -I: $command"; fi
done
needed=$(readelf -d "$work/build/consumer" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
echo "consumer needs: $needed"
case "$needed" in *libwx_gtk*|*libwx_*core*) fail "the consumer links wxWidgets' GUI libraries: $needed" ;; esac

# With the CMake package the build's run path finds the installed libraries;
# pkg-config gives none, so that program is pointed at the prefix's libraries.
libdir=$(dirname "$(find "$prefix" -name 'libziputil.so' | head -n1)")
archive="$work/made by consumer #1.zip"
version=$(PKG_CONFIG_PATH=$pcdir pkg-config --modversion ziputil)
libzip_version=$(pkg-config --modversion libzip)
expected="hello.txt: installed package works
libzip $libzip_version reads hello.txt: installed package works
ziputil $version, headers $version"
programs=("$work/build/consumer")
[ "$mode" = pkgconfig ] && programs+=("$work/plain/consumer")
for program in "${programs[@]}"; do
  rm -f "$archive"
  if [ "$mode" = pkgconfig ]; then
    output=$(LD_LIBRARY_PATH=$libdir "$program" "$archive")
  else
    output=$(env -u LD_LIBRARY_PATH "$program" "$archive")
  fi
  echo "$output"
  [ "$output" = "$expected" ] || fail "$program printed, instead of:
$expected"
  unzip -t "$archive"
done

# The examples build against the installed package alone and do what they say.
if [ "$mode" = cmake ]; then
  cmake -S "$here/../../examples" -B "$work/examples" "${flags[@]}"
  cmake --build "$work/examples"
  env -u LD_LIBRARY_PATH bash "$here/../../examples/run_examples.sh" \
    "$work/examples/pack" "$work/examples/count_lines" "$work/examples/low_level"
fi

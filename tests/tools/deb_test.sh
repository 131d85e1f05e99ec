#!/usr/bin/env bash
# The Debian packages as a user gets them: configures SOURCE for /usr in a tree
# of its own (tests, benchmarks off; minizip from ZLIB_SOURCE_DIR, so nothing is
# downloaded), builds it, runs `cpack -G DEB`, and checks the three packages
# without touching the machine: their control fields, that together they hold
# exactly what `cmake --install` installs (each file in one package), that no
# ELF file carries a run path or debug information, and, unpacked with
# `dpkg -x` into a throwaway root, that the program runs and that the consumer
# builds against them (CMake package and pkg-config) and runs.
# usage: deb_test.sh SOURCE WORKDIR ZLIB_SOURCE_DIR
set -euo pipefail
source=$1 work=$2 zlib=$3
here=$(cd "$(dirname "$0")" && pwd)
fail() { echo "deb_test: $*" >&2; exit 1; }
# Under pipefail a reader that stops early fails the pipeline: `grep -q` quits at
# its first match and `tar -t` at the end-of-archive blocks, and the writer before
# them then dies of SIGPIPE. So matches are made with a grep that reads to the end,
# and tar lists an archive from a file, never from a pipe.
matches() { grep "$@" >/dev/null; }
tar_list() { # deb, --ctrl-tarfile or --fsys-tarfile
  local tarfile
  tarfile=$(mktemp "$work/tarfile.XXXXXX")
  dpkg-deb "$2" "$1" > "$tarfile"
  tar -tf "$tarfile"
  rm -f "$tarfile"
}
rm -rf "$work"
mkdir -p "$work"
build=$work/build

cmake -S "$source" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DZIPUTIL_BUILD_TESTS=OFF -DZIPUTIL_BUILD_BENCH=OFF -DZIPUTIL_ZLIB_SOURCE_DIR="$zlib"
nice cmake --build "$build" -j2
(cd "$build" && cpack -G DEB)

version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
major=${version%%.*}
arch=$(dpkg --print-architecture)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
lib=libziputil$major
debs=()
for p in "$lib" libziputil-dev ziputil; do
  deb="$build/${p}_${version}_${arch}.deb"
  [ -f "$deb" ] || fail "no $deb; cpack made: $(ls "$build"/*.deb)"
  debs+=("$deb")
  echo "== dpkg-deb -I $(basename "$deb")"
  dpkg-deb -I "$deb"
done
field() { dpkg-deb -f "$1" "$2"; }
expect_field() { # deb, field, expected value
  local got
  got=$(field "$1" "$2")
  [ "$got" = "$3" ] || fail "$(basename "$1"): $2 is '$got', not '$3'"
}
expect_depends() { # deb, package that must be among its Depends
  field "$1" Depends | tr ',' '\n' | sed 's/^ *//' | matches "^$2\( \|$\)" ||
    fail "$(basename "$1"): Depends '$(field "$1" Depends)' lacks $2"
}
for i in 0 1 2; do
  expect_field "${debs[$i]}" Version "$version"
  expect_field "${debs[$i]}" Architecture "$arch"
  # The GUI libraries of wxWidgets are never needed at run time: only its base library.
  if field "${debs[$i]}" Depends | matches 'libwxgtk3\.2-1'; then
    fail "$(basename "${debs[$i]}") depends on wxWidgets' GUI library: $(field "${debs[$i]}" Depends)"
  fi
done
expect_field "${debs[0]}" Package "$lib"
expect_field "${debs[0]}" Section libs
for d in libc6 libstdc++6 libwxbase3.2-1 zlib1g; do expect_depends "${debs[0]}" "$d"; done
tar_list "${debs[0]}" --ctrl-tarfile | matches '^\./shlibs$' || fail "$lib has no shlibs file"
expect_field "${debs[1]}" Package libziputil-dev
expect_field "${debs[1]}" Section libdevel
for d in "$lib" zlib1g-dev libwxgtk3.2-dev; do expect_depends "${debs[1]}" "$d"; done
expect_field "${debs[2]}" Package ziputil
expect_field "${debs[2]}" Section utils
for d in "$lib" libc6 libstdc++6; do expect_depends "${debs[2]}" "$d"; done
field "${debs[1]}" Depends | matches "$lib (= $version)" || fail "libziputil-dev does not depend on $lib (= $version)"
field "${debs[2]}" Depends | matches "$lib (= $version)" || fail "ziputil does not depend on $lib (= $version)"

# Each installed file in exactly one package, and nothing else in them.
contents() { tar_list "$1" --fsys-tarfile | grep -v '/$' | sed 's|^\./|/|' | sort; }
contents "${debs[0]}" > "$work/lib.list"
contents "${debs[1]}" > "$work/dev.list"
contents "${debs[2]}" > "$work/program.list"
sort "$work/lib.list" "$work/dev.list" "$work/program.list" > "$work/packaged.list"
dups=$(uniq -d "$work/packaged.list")
[ -z "$dups" ] || fail "in more than one package: $dups"
DESTDIR="$work/installed" cmake --install "$build" >/dev/null
(cd "$work/installed" && find . ! -type d | sed 's|^\./|/|' | sort) > "$work/installed.list"
diff -u "$work/installed.list" "$work/packaged.list" || fail "the packages do not hold what cmake --install installs"
libdir=/usr/lib/$multiarch
for f in "$libdir/libziputil.so.$version" "$libdir/libziputil.so.$major" "$libdir/libtal.so.$version" \
         "$libdir/libtal.so.$major" /usr/share/doc/ziputil/LICENSE /usr/share/doc/ziputil/CHANGELOG.md \
         /usr/share/doc/ziputil/LICENSE.minizip; do
  grep -qx "$f" "$work/lib.list" || fail "$lib lacks $f"
done
for f in "$libdir/libziputil.so" "$libdir/libtal.so" /usr/include/ziputil/CZipReader.h /usr/include/ziputil/Version.h \
         /usr/include/ziputil/minizip/zip.h /usr/include/tal/String.h "$libdir/cmake/ziputil/ziputilConfig.cmake" \
         "$libdir/pkgconfig/ziputil.pc" "$libdir/pkgconfig/tal.pc"; do
  grep -qx "$f" "$work/dev.list" || fail "libziputil-dev lacks $f"
done
grep -qx /usr/bin/ziputil "$work/program.list" || fail "ziputil lacks /usr/bin/ziputil"
head -n1 "$work/installed/usr/share/doc/ziputil/LICENSE.minizip" |
  grep -qx "libziputil.so contains minizip from zlib 1.3.1's contrib/minizip (ioapi.c, unzip.c, zip.c)," ||
  fail "LICENSE.minizip does not start by saying what it covers"
grep -q 'Copyright (C) 1998-2010 Gilles Vollant' "$work/installed/usr/share/doc/ziputil/LICENSE.minizip" ||
  fail "LICENSE.minizip lacks minizip's copyright notice"
grep -q 'This notice may not be removed or altered' "$work/installed/usr/share/doc/ziputil/LICENSE.minizip" ||
  fail "LICENSE.minizip lacks minizip's licence terms"

# Unpacked into a throwaway root.
root=$work/root
for deb in "${debs[@]}"; do dpkg -x "$deb" "$root"; done
elves=0
while IFS= read -r -d '' f; do
  if [ "$(head -c4 "$f" | od -An -c | tr -d ' ')" = '177ELF' ]; then
    elves=$((elves + 1))
    if readelf -d "$f" | grep -E '\((RPATH|RUNPATH)\)'; then fail "$f has a run path"; fi
    if readelf -S "$f" | matches '\.debug_info'; then fail "$f is not stripped"; fi
  fi
done < <(find "$root" -type f -print0)
[ "$elves" -eq 3 ] || fail "expected 3 ELF files (two libraries, the program), found $elves"
readelf -d "$root$libdir/libziputil.so.$version" | matches "(SONAME).*\[libziputil.so.$major\]" || fail "libziputil's SONAME"
export LD_LIBRARY_PATH=$root$libdir
"$root/usr/bin/ziputil" --help >/dev/null
mkdir -p "$work/data/folder"
printf 'packaged\n' > "$work/data/folder/a.txt"
(cd "$work/data" && "$root/usr/bin/ziputil" add "$work/data/made by the package.zip" folder)
unzip -t "$work/data/made by the package.zip"
"$root/usr/bin/ziputil" list "$work/data/made by the package.zip" | matches -x 'folder/a.txt' || fail "ziputil list"
unset LD_LIBRARY_PATH

bash "$here/package_test.sh" cmake "$root/usr" "$work/consumer-cmake"
bash "$here/package_test.sh" pkgconfig "$root/usr" "$work/consumer-pkgconfig"
echo "deb_test: $(cd "$build" && ls ./*.deb | tr '\n' ' ')pass"

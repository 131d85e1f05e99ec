#!/usr/bin/env bash
# The main job: sets up, builds and installs the libraries and the program
# (nothing else: no tests, no benchmarks) in build-demo/, then uses the
# installed ziputil program on the sample folder: makes an archive of it,
# lists it, tests it, extracts it and compares the result with the original,
# and has Info-ZIP unzip, 7-Zip and Python's zipfile check the archive. The
# archive and the extracted folder stay in build-demo/demo/ to look at.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
cd "$repo"
bash scripts/setup.sh
build=$repo/build-demo
cmake -S . -B "$build" -G Ninja -DZIPUTIL_BUILD_TESTS=OFF -DZIPUTIL_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"
cmake --install "$build" --prefix "$build/prefix" >/dev/null
ziputil=$build/prefix/bin/ziputil

work=$build/demo
rm -rf "$work"
mkdir -p "$work"
archive="$work/sample archive.zip"

echo "== ziputil add"
(cd examples && "$ziputil" add --level 9 "$archive" sample)
echo "== ziputil list --long"
"$ziputil" list --long "$archive"
echo "== ziputil test"
"$ziputil" test "$archive"
echo "== ziputil extract"
"$ziputil" extract "$archive" -d "$work/out"
echo "== compare with the original"
diff -r examples/sample "$work/out/sample"
# Each tool checks the archive; all three run, and any complaint fails the demo.
failed=()
echo "== cross-check with Info-ZIP unzip -t"
unzip -t "$archive" || failed+=("unzip -t")
echo "== cross-check with 7-Zip (7z t)"
7z t "$archive" || failed+=("7z t")
echo "== cross-check with Python's zipfile"
python3 - "$archive" <<'PY' || failed+=("zipfile")
import sys, zipfile
with zipfile.ZipFile(sys.argv[1]) as z:
    bad = z.testzip()
    assert bad is None, bad
    print("%d entries, every CRC-32 checked by zipfile" % len(z.infolist()))
PY
echo "Archive: $archive"
echo "Extracted: $work/out"
if [ ${#failed[@]} -gt 0 ]; then
  echo "demo: the archive was refused or warned about by: ${failed[*]}" >&2
  exit 1
fi
echo "The extracted folder matches the sample folder byte for byte; unzip, 7z and zipfile find no error."

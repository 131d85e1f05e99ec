#!/usr/bin/env bash
# Builds the benchmark program in build-bench/ (Release, without the tests) and
# runs it; arguments go to the program (bench/run.sh --quick, --help, ...).
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
cd "$repo"
bash scripts/setup.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DZIPUTIL_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench --target ziputil_bench
exec build-bench/bench/ziputil_bench "$@"

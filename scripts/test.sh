#!/usr/bin/env bash
# The project's test command: installs what is missing, then builds and runs
# the whole test suite three ways:
#   build/        plain (RelWithDebInfo), every test including the long ones
#   build-asan/   AddressSanitizer + UndefinedBehaviorSanitizer, all but the long tests
#   build-tsan/   ThreadSanitizer, the concurrency tests
# Each configuration is built once. Pass a CTest regex to run only matching
# tests in every configuration, e.g.  scripts/test.sh 'tal\.Uri'
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
cd "$repo"
filter=${1:-}
jobs=$(nproc)

bash scripts/setup.sh

configure() { # dir, extra cmake args...
  local dir=$1
  shift
  cmake -S . -B "$dir" -G Ninja -DZIPUTIL_BUILD_BENCH=OFF "$@" >/dev/null
}

configure_and_build() { # dir, extra cmake args...
  configure "$@"
  cmake --build "$1" -j"$jobs"
}

# The test programs made from tests/<folder>/*_concurrency_test.cpp.
concurrency_targets() {
  local f
  for f in tests/*/*_concurrency_test.cpp; do
    [ -e "$f" ] || continue
    f=${f#tests/}
    echo "${f%%/*}_$(basename "$f" .cpp)"
  done
}

run_ctest() { # dir, ctest args...
  local dir=$1
  shift
  local args=(--test-dir "$dir" --output-on-failure --no-tests=error -j"$jobs" "$@")
  [ -n "$filter" ] && args+=(-R "$filter")
  ctest "${args[@]}"
}

section() { printf '\n=== %s ===\n' "$*"; }

section "plain build"
configure_and_build build
section "plain tests"
run_ctest build

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
section "AddressSanitizer + UndefinedBehaviorSanitizer build"
configure_and_build build-asan -DZIPUTIL_SANITIZE=address,undefined
section "AddressSanitizer + UndefinedBehaviorSanitizer tests"
run_ctest build-asan -LE long

export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
section "ThreadSanitizer build (the concurrency tests only)"
configure build-tsan -DZIPUTIL_SANITIZE=thread
mapfile -t targets < <(concurrency_targets)
[ ${#targets[@]} -eq 0 ] || cmake --build build-tsan -j"$jobs" --target "${targets[@]}"
section "ThreadSanitizer tests"
run_ctest build-tsan -L concurrency

section "all tests passed"

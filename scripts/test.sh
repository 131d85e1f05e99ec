#!/usr/bin/env bash
# The project's test command: installs what is missing, then builds and runs
# the whole test suite three ways:
#   build/        plain (RelWithDebInfo), reading through ISA-L, every test including the long ones
#   build-asan/   AddressSanitizer + UndefinedBehaviorSanitizer, reading with zlib alone
#                 (-DZIPUTIL_WITH_ISAL=OFF), all but the long tests
#   build-tsan/   ThreadSanitizer, the concurrency tests
# and then, with clang, build-fuzz/: the archive reader's fuzzer, run for a
# bounded time (ZIPUTIL_FUZZ_SECONDS, default 75).
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

section "plain build (reading through ISA-L)"
configure build -DZIPUTIL_WITH_ISAL=ON
grep -q '^ZIPUTIL_INFLATE_ISAL:INTERNAL=ON$' build/CMakeCache.txt || { echo "test: ISA-L (libisal-dev) not found" >&2; exit 1; }
cmake --build build -j"$jobs"
section "plain tests"
run_ctest build

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
section "AddressSanitizer + UndefinedBehaviorSanitizer build (reading with zlib alone)"
configure_and_build build-asan -DZIPUTIL_SANITIZE=address,undefined -DZIPUTIL_WITH_ISAL=OFF
section "AddressSanitizer + UndefinedBehaviorSanitizer tests"
run_ctest build-asan -LE long

export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
section "ThreadSanitizer build (the concurrency tests only)"
configure build-tsan -DZIPUTIL_SANITIZE=thread
mapfile -t targets < <(concurrency_targets)
[ ${#targets[@]} -eq 0 ] || cmake --build build-tsan -j"$jobs" --target "${targets[@]}"
section "ThreadSanitizer tests"
run_ctest build-tsan -L concurrency

# The archive reader's libFuzzer target (fuzz/), built with clang under the
# same sanitizers, fuzzed for a bounded time from a fresh copy of its seed
# corpus. A crash, sanitizer report, leak, timeout or memory blow-up fails the
# run; the input that caused it is kept in build-fuzz/fuzz/findings/. Skipped
# when a test filter is given.
fuzz_seconds=${ZIPUTIL_FUZZ_SECONDS:-75}
if [ -z "$filter" ]; then
  section "libFuzzer build (clang, AddressSanitizer + UndefinedBehaviorSanitizer)"
  configure_and_build build-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DZIPUTIL_SANITIZE=address,undefined -DZIPUTIL_BUILD_FUZZ=ON -DZIPUTIL_BUILD_TESTS=OFF
  section "fuzzing the archive reader for ${fuzz_seconds}s"
  fuzz=build-fuzz/fuzz
  rm -rf "$fuzz/corpus" "$fuzz/findings"
  mkdir -p "$fuzz/corpus" "$fuzz/findings"
  cp "$fuzz"/seeds/* "$fuzz/corpus/"
  if ! "$fuzz/zip_reader_fuzzer" -max_total_time="$fuzz_seconds" -rss_limit_mb=2048 -timeout=10 \
      -dict=fuzz/zip.dict -print_final_stats=1 -artifact_prefix="$fuzz/findings/" "$fuzz/corpus" \
      >"$fuzz/fuzz.log" 2>&1; then
    tail -n 80 "$fuzz/fuzz.log"
    echo "fuzzer finding: the input is in $fuzz/findings/, the whole log in $fuzz/fuzz.log" >&2
    exit 1
  fi
  grep -E '^#[0-9]+[[:space:]]+DONE|^stat::' "$fuzz/fuzz.log" || true
fi

section "all tests passed"

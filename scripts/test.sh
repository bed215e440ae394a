#!/usr/bin/env bash
# Builds and runs every test twice: a normal build, then an AddressSanitizer +
# UndefinedBehaviorSanitizer build. Both builds are warning-free (-Werror).
# The sanitizer build is unoptimised: it compiles in a fraction of the time,
# and the optimised build already checks that -O2's warnings stay quiet.
# The normal build also compiles the benchmarks (run by scripts/bench.sh).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)

run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DKODRUNE_BUILD_BENCH=OFF "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

echo "== normal build =="
run_suite build/release -DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG" -DKODRUNE_BUILD_BENCH=ON
echo "== AddressSanitizer + UndefinedBehaviorSanitizer build =="
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build/asan -DCMAKE_BUILD_TYPE=Debug -DKODRUNE_SANITIZE=ON

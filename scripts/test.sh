#!/usr/bin/env bash
# Builds and runs every test twice: a normal build, then an AddressSanitizer +
# UndefinedBehaviorSanitizer build. Both builds are warning-free (-Werror).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)

run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKODRUNE_BUILD_BENCH=OFF "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

echo "== normal build =="
run_suite build/release
echo "== AddressSanitizer + UndefinedBehaviorSanitizer build =="
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run_suite build/asan -DKODRUNE_SANITIZE=ON

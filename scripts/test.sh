#!/usr/bin/env bash
# Checks that every C++ file is formatted, then builds and runs every test
# twice: a normal build (g++, -O2, benchmarks compiled too), then an
# AddressSanitizer + UndefinedBehaviorSanitizer build made with clang and
# instrumented for libFuzzer, whose section fuzzer then runs for 60 seconds.
# Both builds are warning-free (-Werror) under their own compiler. The
# sanitizer build is unoptimised: it compiles in a fraction of the time, and
# the optimised build already checks that -O2's warnings stay quiet.
# Both compile each target's sources in batches of eight (a unity build):
# most of a source's compile time is the JSON library's templates, which a
# batch instantiates once, so a file of the MCP server compiles in under half
# the time. The main job (scripts/run.sh) builds the same way, so the two
# share their objects.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)

echo "== formatting (clang-format, the root .clang-format) =="
git ls-files '*.cpp' '*.hpp' | xargs clang-format --dry-run --Werror

# run_suite DIR EXCLUDE CMAKE_ARGS...: EXCLUDE is a ctest -E pattern ("" for none).
# A suite that finds no test fails: a build folder configured without tests
# must never pass for a tested one.
run_suite() {
  local dir=$1 exclude=$2; shift 2
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  ctest --test-dir "$dir" --output-on-failure --no-tests=error -j "$jobs" ${exclude:+-E "$exclude"}
}

# CI starts from a clean clone, where a newcomer has often run the main job
# first: configure as it does, so this run proves the normal build turns its
# tests back on.
if [ "${CI:-}" = "true" ]; then
  bash scripts/run.sh --configure-only
fi

echo "== normal build =="
run_suite build/release "" -DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG" \
  -DKODRUNE_BUILD_TESTS=ON -DKODRUNE_BUILD_BENCH=ON -DCMAKE_UNITY_BUILD=ON
echo "== AddressSanitizer + UndefinedBehaviorSanitizer build (clang, fuzz targets) =="
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
# Some tests run in the normal build only: their time goes to load, not to
# memory the sanitizers would check, and unoptimised and instrumented they
# would take a fifth of the run. They are the shared store's load test (8
# workers, 12 rounds each), the concurrency tests (Race.*, 53 s here against
# 12 s), the bounds of every MCP answer on a generated large repository
# (24 s against 8 s) and the browser test, whose time is the browser's.
# Line tables are all a sanitizer's report needs of the debug information.
CC=clang CXX=clang++ run_suite build/asan \
  'SharedStore\.ConcurrentWorkers|Race\.|McpServer\.EveryAnswerAtDefaultArguments|BrowserView\.' \
  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-gline-tables-only \
  -DKODRUNE_BUILD_TESTS=ON -DKODRUNE_BUILD_BENCH=OFF -DCMAKE_UNITY_BUILD=ON \
  -DKODRUNE_SANITIZE=ON -DKODRUNE_FUZZ=ON
echo "== section fuzzer, 60 s =="
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/found"
if ! build/asan/fuzz/section_fuzz -max_total_time=60 -print_final_stats=1 \
    "$work/found" fuzz/corpus >"$work/fuzz.log" 2>&1; then
  tail -n 60 "$work/fuzz.log"
  exit 1
fi
grep -E '^(Done|stat::number_of_executed_units|stat::new_units_added)' "$work/fuzz.log"

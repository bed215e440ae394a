#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, every library instrumented alike,
# then runs the section fuzzer over its corpus for a while (60 s unless a
# number of seconds is given). A crash, a leak or a failed check ends the run
# with the input that caused it and a non-zero exit. New inputs it finds go
# to a scratch folder: the committed corpus changes only by hand (-merge=1).
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
jobs=$(nproc 2>/dev/null || echo 2)

CC=clang CXX=clang++ cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKODRUNE_FUZZ=ON -DKODRUNE_BUILD_TESTS=OFF -DKODRUNE_BUILD_BENCH=OFF >/dev/null
cmake --build build/fuzz -j "$jobs" --target section_fuzz rpc_fuzz

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
build/fuzz/fuzz/section_fuzz -max_total_time="$seconds" -print_final_stats=1 \
  "$work" fuzz/corpus

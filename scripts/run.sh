#!/usr/bin/env bash
# Sets up, builds, and runs the main job: `kodrune-wiki plan` on a repository
# (this one by default) with the SQLite store, twice. The first run plans the
# wiki and persists it as the plan of record; the second pins every page to
# it, so it reports no amendments.
set -euo pipefail
cd "$(dirname "$0")/.."
# `--configure-only` stops after configuring (the test script uses it in CI).
repo=${1:-.}

bash scripts/setup.sh
# The same folder and flags as the test script's normal build, so running
# both shares the compiled objects. Every option is set here, as it is
# there: neither script depends on what the other left in the cache.
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release "-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG" \
  -DKODRUNE_BUILD_TESTS=OFF -DKODRUNE_BUILD_BENCH=OFF -DCMAKE_UNITY_BUILD=ON >/dev/null
if [ "${1:-}" = "--configure-only" ]; then exit 0; fi
cmake --build build/release -j "$(nproc 2>/dev/null || echo 2)" --target kodrune-wiki >/dev/null

echo "== first run =="
build/release/kodrune-wiki plan --repo "$repo"
echo
echo "== second run =="
build/release/kodrune-wiki plan --repo "$repo"

#!/usr/bin/env bash
# Replays real histories through `kodrune-wiki plan` and prints how much the
# wiki's page structure moved: shifted files, disturbed pages, page-id churn,
# drift warnings and the median build time (see bench/replay_stability.cpp).
#
#   bash scripts/stability.sh                        # the recorded zstd history (every step,
#                                                    # then every 7th), its lib/ and programs/
#                                                    # as a git bundle, and this repository's own
#   bash scripts/stability.sh --paths FILE.jsonl [--stride N] [--steps]
#   bash scripts/stability.sh --git REPO [--rev REF] [--stride N] [--steps]
#
# Builds kodrune-wiki and the replay tool in Release (build/bench-release).
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/bench-release
jobs=$(nproc 2>/dev/null || echo 2)
[ "$jobs" -gt 2 ] && jobs=2
# As in scripts/bench.sh: GCC 12's false array-bounds and stringop-overflow
# hits at -O2 stay warnings in this optimised build.
cxxflags=${BENCH_CXXFLAGS--Wno-error=array-bounds -Wno-error=stringop-overflow}

bash scripts/setup.sh
mkdir -p "$build"
if ! {
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKODRUNE_BUILD_TESTS=OFF \
    -DKODRUNE_BUILD_BENCH=ON "-DCMAKE_CXX_FLAGS=$cxxflags" &&
    cmake --build "$build" -j "$jobs" --target kodrune-wiki kodrune_replay_stability
} >"$build/stability-build.log" 2>&1; then
  tail -n 40 "$build/stability-build.log"
  echo "stability: the Release build failed; the whole log is $build/stability-build.log" >&2
  exit 1
fi
replay=("$build/bench/kodrune_replay_stability" --wiki "$build/kodrune-wiki")

if [ "$#" -gt 0 ]; then
  exec "${replay[@]}" "$@"
fi

zstd=../shared/replay/zstd-300.jsonl
if [ -f "$zstd" ]; then
  echo "== zstd, 300 recorded steps =="
  "${replay[@]}" --paths "$zstd"
  echo
  echo "== zstd, every 7th step =="
  "${replay[@]}" --paths "$zstd" --stride 7
  echo
else
  echo "stability: $zstd is not here; skipping the recorded zstd history" >&2
fi
bundle=../shared/replay/zstd-lib-300.bundle
if [ -f "$bundle" ]; then
  # The same 300 steps of zstd's lib/ and programs/, as a git history.
  rm -rf "$build/zstd-lib"
  git clone -q "$bundle" "$build/zstd-lib"
  echo "== zstd lib/ and programs/, 300 commits =="
  "${replay[@]}" --git "$build/zstd-lib" --rev HEAD
  echo
fi
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  echo "== this repository, first-parent history of HEAD =="
  "${replay[@]}" --git . --rev HEAD
fi

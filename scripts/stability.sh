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

# shellcheck source=scripts/bench_build.sh
source scripts/bench_build.sh
bench_build stability "$build/stability-build.log" kodrune-wiki kodrune_replay_stability
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

#!/usr/bin/env bash
# Replays real histories through `kodrune-wiki save` and `changes --json` and
# prints how precisely cited line ranges are judged: false alarms, misses and
# moved ranges found (see bench/precision.cpp).
#
#   bash scripts/precision.sh                         # zstd lib/ and programs/ (every step,
#                                                     # then every 7th) and this repository's own
#   bash scripts/precision.sh --git REPO [--stride N] [--ext .c,.h] [--steps]
#   PRECISION_BIN=build/release bash scripts/precision.sh   # binaries already built there
#
# Builds kodrune-wiki and the replay tool in Release (build/bench-release);
# every history is replayed in a clone of its own under a temporary folder.
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=scripts/bench_build.sh
source scripts/bench_build.sh
# PRECISION_BIN=DIR uses the kodrune-wiki and bench/kodrune_precision built
# there, and builds nothing.
if [ -n "${PRECISION_BIN:-}" ]; then
  build=$PRECISION_BIN
else
  bench_build precision "$build/precision-build.log" kodrune-wiki kodrune_precision
fi
wiki=$(pwd)/$build/kodrune-wiki
precision=$(pwd)/$build/bench/kodrune_precision
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A clone of $1 in the work folder, its path printed.
clone() {
  local dest="$work/clone-$RANDOM$RANDOM"
  git clone -q "$1" "$dest"
  echo "$dest"
}

if [ "${1:-}" = "--git" ]; then
  repo=$(clone "$2")
  shift 2
  exec "$precision" --wiki "$wiki" --repo "$repo" "$@"
fi

bundle=../shared/replay/zstd-lib-300.bundle
if [ -f "$bundle" ]; then
  echo "== zstd lib/ and programs/, 300 steps, every step =="
  "$precision" --wiki "$wiki" --repo "$(clone "$bundle")"
  echo
  echo "== zstd lib/ and programs/, every 7th step =="
  "$precision" --wiki "$wiki" --repo "$(clone "$bundle")" --stride 7
  echo
else
  echo "precision: $bundle is not here; skipping the zstd history" >&2
fi
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  echo "== this repository, first-parent history of HEAD (C++ sources) =="
  "$precision" --wiki "$wiki" --repo "$(clone .)" --ext .cpp,.hpp
fi

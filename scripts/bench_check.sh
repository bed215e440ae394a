#!/usr/bin/env bash
# Times `kodrune-wiki check` beside an unchanged `plan` on a branch whose wiki
# is written and fresh: PAGES folders of two files, a saved page each
# (bench/written_branch.cpp). Medians of BENCH_COMMAND_RUNS runs (5).
#
#   bash scripts/bench_check.sh [PAGES]     # default 32000
#
# scripts/written_branch.sh builds the command and makes the branch, once.
set -euo pipefail
cd "$(dirname "$0")/.."
pages=${1:-32000}
runs=${BENCH_COMMAND_RUNS:-5}
# shellcheck source=scripts/written_branch.sh
source scripts/written_branch.sh

median_ms() {
  local times=()
  for _ in $(seq "$runs"); do
    local t0 t1
    t0=$(date +%s%N)
    "$@" >/dev/null || true  # check exits 1 when it finds what fails it
    t1=$(date +%s%N)
    times+=($(((t1 - t0) / 1000000)))
  done
  printf '%s\n' "${times[@]}" | sort -n | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}'
}

stale=$("$wiki" check --repo "$repo" --json --fail-on stale,files,citations |
  python3 -c 'import json, sys; r = json.load(sys.stdin); print(sum(f["kind"] in ("stale", "files", "citations") for f in r["findings"]))')
plan_ms=$(median_ms "$wiki" plan --repo "$repo")
check_ms=$(median_ms "$wiki" check --repo "$repo")
pages_now=$("$wiki" plan --repo "$repo" --json | python3 -c 'import json, sys; print(len(json.load(sys.stdin)["plans"]))')
echo "branch: $pages_now pages, $stale stale, changed or broken findings"
echo "plan, nothing changed:  $plan_ms ms"
echo "check, nothing stale:   $check_ms ms ($(awk -v c="$check_ms" -v p="$plan_ms" 'BEGIN {printf "%.2f", c / p}') x plan; target <= 1)"

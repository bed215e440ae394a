#!/usr/bin/env bash
# A no-change `plan` (text and JSON) and the MCP status call on a monorepo of
# 100,000 files (2,000 folders of 50 C files, committed), beside
# `git status --porcelain` on the same tree, interleaved in one run.
#
#   bash scripts/bench_monorepo.sh [RUNS]      (default 5; medians)
#
# The repository is generated once into build/bench-monorepo (BENCH_MONOREPO
# to place it elsewhere); BENCH_WIKI times another kodrune-wiki binary.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BENCH_BUILD:-build/release}
wiki=${BENCH_WIKI:-$build/kodrune-wiki}
repo=${BENCH_MONOREPO:-build/bench-monorepo}
runs=${1:-5}

cmake --build "$build" --target kodrune-wiki kodrune_bench_make_repo kodrune_bench_mcp_time >/dev/null
if [ ! -d "$repo/.git" ]; then
  echo "generating $repo ..." >&2
  rm -rf "$repo"
  "$build/bench/kodrune_bench_make_repo" "$repo" --monorepo 2000 50 >/dev/null
  git -C "$repo" init -q -b main
  git -C "$repo" add -A .
  git -C "$repo" -c user.name=bench -c user.email=bench@localhost commit -q -m "Generated monorepo"
fi
# The first build stores the plan; every later one changes nothing.
"$wiki" plan --repo "$repo" >/dev/null

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
time_ms() {
  local start end
  start=$(date +%s%N)
  "$@" >/dev/null
  end=$(date +%s%N)
  echo $(((end - start) / 1000000))
}
median() { sort -n "$1" | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
for _ in $(seq "$runs"); do
  time_ms git -C "$repo" status --porcelain >>"$tmp/git"
  time_ms "$wiki" plan --repo "$repo" >>"$tmp/text"
  time_ms "$wiki" plan --repo "$repo" --json >>"$tmp/json"
done
# One session: the first status derives the plan, the later ones reuse it.
"$build/bench/kodrune_bench_mcp_time" "$wiki" "$repo" $((runs + 1)) >"$tmp/mcp"
head -1 "$tmp/mcp" | awk '{print $2}' >"$tmp/mcp_first"
tail -n +2 "$tmp/mcp" | awk '{print $2}' >"$tmp/mcp_later"
bytes=$(tail -1 "$tmp/mcp" | awk '{print $3}')

git_ms=$(median "$tmp/git")
ratio() { awk -v a="$1" -v b="$git_ms" 'BEGIN {printf "%.2f", a / b}'; }
text_ms=$(median "$tmp/text")
json_ms=$(median "$tmp/json")
echo "load before/after: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "git status --porcelain:      $git_ms ms"
echo "plan, nothing changed:       $text_ms ms ($(ratio "$text_ms") x git status; target <= 1.2)"
echo "plan --json, nothing changed: $json_ms ms ($(ratio "$json_ms") x git status; target <= 1.2)"
echo "MCP wiki status, first call: $(median "$tmp/mcp_first") ms"
echo "MCP wiki status, later calls: $(median "$tmp/mcp_later") ms (answer $bytes bytes; target <= 300 ms)"

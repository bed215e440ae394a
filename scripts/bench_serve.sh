#!/usr/bin/env bash
# Times `kodrune-wiki serve` answering the index and one page on a branch
# whose wiki is written and fresh: PAGES folders of two files, a saved page
# each (bench/written_branch.cpp, the branch scripts/bench_check.sh uses).
# Each request checks the store, the git index and the requested page's files
# and reads again what changed; every indexed file is checked at most once a
# second, which the last figure times: a request after a pause. Medians of
# BENCH_COMMAND_RUNS requests (7).
#
#   bash scripts/bench_serve.sh [PAGES]     # default 32000
set -euo pipefail
cd "$(dirname "$0")/.."
pages=${1:-32000}
runs=${BENCH_COMMAND_RUNS:-7}
# shellcheck source=scripts/written_branch.sh
source scripts/written_branch.sh

work=$(mktemp -d)
"$wiki" serve --json --repo "$repo" >"$work/start" 2>"$work/err" &
server=$!
trap 'kill "$server" 2>/dev/null; wait "$server" 2>/dev/null; rm -rf "$work"' EXIT
for _ in $(seq 100); do [ -s "$work/start" ] && break; sleep 0.1; done
url=$(sed -E 's/.*"url": ?"([^"]+)".*/\1/' "$work/start")
page=$(curl -fsS "$url" | grep -o 'href="/pages/[^"]*"' | sed -n 2p | sed -E 's/href="\/(.*)"/\1/')

# median_ms URL [PAUSE]: PAUSE seconds before each timed request.
median_ms() {
  local times=()
  curl -fsS -o /dev/null "$1"  # the first request opens the store and reads the hash cache
  for _ in $(seq "$runs"); do
    [ -n "${2:-}" ] && sleep "$2"
    times+=($(curl -fsS -o /dev/null -w '%{time_total}' "$1" | awk '{printf "%d", $1 * 1000}'))
  done
  printf '%s\n' "${times[@]}" | sort -n | sed -n "$(((runs + 1) / 2))p"
}

echo "branch of $pages written pages; medians of $runs requests"
echo "index ($(curl -fsS "$url" | wc -c) bytes): $(median_ms "$url") ms"
echo "one page, $page ($(curl -fsS "$url$page" | wc -c) bytes): $(median_ms "$url$page") ms"
echo "tree page ($(curl -fsS "${url}tree.html" | wc -c) bytes): $(median_ms "${url}tree.html") ms"
echo "one page after a 1.2 s pause (sweeps every indexed file): $(median_ms "$url$page" 1.2) ms"

#!/usr/bin/env bash
# Builds the benchmarks in Release (build/bench-release) and runs them: the
# Google Benchmark suite (pin_plan, section_map, _select_stale, the store on
# SQLite and on a throwaway PostgreSQL cluster), builds per second of worker
# processes sharing one store (SQLite beside PostgreSQL), generated requests
# written through a pipe into `kodrune-wiki rpc` (and the recording-host cases
# into `kodrune-wiki-harness rpc`), timed to their answer and to the process's
# exit, beside the time simdjson alone takes to parse the same bytes, then
# `kodrune-wiki plan` on a
# generated repository of 100k files against `git status` on the same tree. Peak memory of the largest case of
# each workload is measured by /usr/bin/time -v on a run of that case alone.
#
#   bash scripts/bench.sh            # everything, 3 repetitions (median)
#   BENCH_FILTER=PinPlan bash scripts/bench.sh   # part of the suite
#   BENCH_SKIP_REPO=1 bash scripts/bench.sh      # no 100k-file repository
#   BENCH_ONLY_RPC=1 bash scripts/bench.sh       # the rpc requests only
#   BENCH_ONLY_RPC=1 BENCH_WIKI=/path/to/kodrune-wiki bash scripts/bench.sh
#   BENCH_SKIP_SHARED=1 bash scripts/bench.sh    # no builds/s of a shared store
#   BENCH_SHARED_ARGS='--workers 4 --rounds 10' bash scripts/bench.sh
#   (BENCH_HARNESS=/path/to/kodrune-wiki-harness likewise for the harness's cases)
#
# The repository is generated once into build/bench-repo and reused.
set -euo pipefail
cd "$(dirname "$0")/.."

# shellcheck source=scripts/bench_build.sh
source scripts/bench_build.sh
out=$build/bench-results
reps=${BENCH_REPETITIONS:-3}
filter=${BENCH_FILTER:-.}
repo_files=${BENCH_REPO_FILES:-100000}
repo=build/bench-repo
runs=${BENCH_COMMAND_RUNS:-5}

mkdir -p "$out"
bench_build bench "$out/build.log" kodrune_bench kodrune_bench_make_repo kodrune_bench_make_request \
  kodrune_bench_parse_floor kodrune_bench_rpc_time kodrune_bench_shared_store kodrune-wiki \
  kodrune-wiki-harness
bench=$build/bench/kodrune_bench
# BENCH_WIKI times another build of the command (an older one, say) on the
# same requests.
wiki=${BENCH_WIKI:-$PWD/$build/kodrune-wiki}
# `_select_stale` on a recording host is the test harness's op, not the
# product's (whose select_stale reads a real store): the harness is built
# with the benchmarks for it.
harness=${BENCH_HARNESS:-$PWD/$build/tests/harness/kodrune-wiki-harness}

echo "== machine =="
echo "cores: $(nproc)  cpu: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ //')"
echo "memory: $(awk '/MemTotal/ {printf "%.1f GiB", $2 / 1048576}' /proc/meminfo)  load: $(cut -d' ' -f1-3 /proc/loadavg)"
echo

# The requests of the rpc section (name, kind, size, the binary that serves
# them: "wiki" the product, "harness" the test harness), generated once into
# build/bench-requests: pin_plan over 2k/8k/32k stored rows of ten paths each
# (and the 32k rows with every column a store row carries, and 32k rows of
# which two in three are kept from the record), _select_stale over 10k plans,
# section_map over an 8 MiB body (with 10k citations, and with 2,500
# sections citing 20k) and over pages citing 10k/20k/40k files.
rpc_requests='pin_plan_2k pin_plan 2000 wiki
pin_plan_8k pin_plan 8000 wiki
pin_plan_32k pin_plan 32000 wiki
pin_plan_32k_whole_rows pin_plan_full 32000 wiki
pin_plan_32k_kept pin_plan_kept 32000 wiki
select_stale_10k select_stale 10000 harness
section_map_8MiB_body section_map 8388608 wiki
section_map_8MB_many section_map_many 8388608 wiki
section_map_10k_files section_map_hashes 10000 wiki
section_map_20k_files section_map_hashes 20000 wiki
section_map_40k_files section_map_hashes 40000 wiki'

run_rpc() {
  local requests=$build/bench-requests
  mkdir -p "$requests"
  echo "== rpc: a request written through a pipe, time to its answer (median of $runs runs) =="
  printf '%-26s %-8s %7s %7s %9s %7s %7s %9s\n' request binary "in MB" "out MB" "answer ms" \
    "exit ms" "cpu ms" "floor ms"
  while read -r name kind size serves; do
    local file=$requests/$name.jsonl
    local binary=$wiki
    [ "$serves" = harness ] && binary=$harness
    [ -s "$file" ] || "$build/bench/kodrune_bench_make_request" "$kind" "$size" >"$file"
    "$binary" rpc <"$file" >"$out/$name.out"
    if ! grep -q '^{"id":1,"result"' "$out/$name.out"; then
      echo "bench: $name was not answered with a result: $(head -c 300 "$out/$name.out")" >&2
      return 1
    fi
    local times
    times=$("$build/bench/kodrune_bench_rpc_time" "$binary" "$file" "$runs")
    printf '%-26s %-8s %7.1f %7.1f %9s %7s %7s %9s\n' "$name" "$serves" \
      "$(awk -v b="$(stat -c %s "$file")" 'BEGIN {print b / 1e6}')" \
      "$(awk -v b="$(stat -c %s "$out/$name.out")" 'BEGIN {print b / 1e6}')" \
      ${times} "$("$build/bench/kodrune_bench_parse_floor" "$file" "$runs")"
  done <<<"$rpc_requests"
  echo
}

if [ -n "${BENCH_ONLY_RPC:-}" ]; then
  run_rpc
  exit 0
fi

# Each family runs in a process of its own: a workload of 32k rows leaves a
# heap behind that would slow whatever ran after it in the same process, and
# a real worker does one of these things at a time.
echo "== suite ($reps repetitions, median; a process per family) =="
rm -f "$out"/suite-*.json
families=$("$bench" --benchmark_list_tests=true --benchmark_filter="$filter" | cut -d/ -f1 | awk '!seen[$0]++')
for family in $families; do
  "$bench" --benchmark_filter="^$family/" --benchmark_repetitions="$reps" \
    --benchmark_report_aggregates_only=true --benchmark_out="$out/suite-$family.json" \
    --benchmark_out_format=json 2>&1 | grep -E '^BM_' | grep -v '_mean\|_stddev\|_cv' || true
done
echo

# Peak resident memory of a process running one case only (its inputs included).
# The skeleton's is its peak_MB counter: it builds nothing else.
peak_mb() {
  /usr/bin/time -v "$bench" --benchmark_filter="$1" --benchmark_min_time=0.01 >/dev/null 2>"$out/time.txt" || true
  awk '/Maximum resident set size/ {printf "%.0f", $6 / 1024}' "$out/time.txt"
}
if [ -x /usr/bin/time ]; then
  echo "== peak memory, largest case alone (MiB, inputs included) =="
  for case in 'BM_PinPlan/pinning/32000$' 'BM_PinPlan/replan/32000$' 'BM_SectionMap/8388608$' \
    'BM_SelectStale/40000$' 'BM_StoreLoad/32000$'; do
    if echo "$case" | grep -qE "$filter"; then
      printf '%-30s %s\n' "${case%\$}" "$(peak_mb "$case")"
    fi
  done
  echo
fi

if command -v python3 >/dev/null; then
  python3 - "$out"/suite-*.json <<'EOF'
import json, sys
runs = {b["run_name"]: b for path in sys.argv[1:] for b in json.load(open(path))["benchmarks"]
        if b.get("aggregate_name") == "median"}
def ms(name):
    b = runs.get(name)
    if not b:
        return None
    scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[b["time_unit"]]
    return b["real_time"] * scale
print("== against the targets (median wall time) ==")
for mode in ("pinning", "replan"):
    t8, t32 = ms(f"BM_PinPlan/{mode}/8000"), ms(f"BM_PinPlan/{mode}/32000")
    if t8 and t32:
        print(f"pin_plan {mode}: 32k {t32:.1f} ms (target < 150), 32k/8k {t32 / t8:.2f} (target < 5)")
for size in ("1048576", "8388608"):
    b = runs.get(f"BM_SectionMap/{size}")
    if b:
        print(f"section_map {int(size) >> 20} MiB: {b['bytes_per_second'] / 1e6:.1f} MB/s (target >= 100)")
t = ms("BM_SelectStale/10000")
if t:
    print(f"_select_stale 10k: {t:.1f} ms (target < 20)")
for name, label in (("BM_StoreLoad/32000", "store load 32k"),
                    ("BM_PersistSkeleton/32000/iterations:1", "skeleton persist 32k"),
                    ("BM_StoreLoadPostgres/32000", "store load 32k, PostgreSQL"),
                    ("BM_PersistSkeletonPostgres/32000/iterations:1",
                     "skeleton persist 32k, PostgreSQL")):
    t = ms(name)
    if t:
        print(f"{label}: {t:.0f} ms (target < 1000)")
for name, label in (("BM_FileHashLoad/100000", "file hash cache load 100k"),
                    ("BM_FileHashSave/100000/iterations:1", "file hash cache save 100k")):
    t = ms(name)
    if t:
        print(f"{label}: {t:.0f} ms (read and written by every build of a 100k-file repository)")
for name, small, large in (("BM_SelectStale", "10000", "40000"),
                           ("BM_SectionMapOneSection", "262144", "1048576"),
                           ("BM_StoreLoadCatchAll", "5000", "20000"),
                           ("BM_PersistSkeleton", "8000/iterations:1", "32000/iterations:1")):
    a, b = ms(f"{name}/{small}"), ms(f"{name}/{large}")
    if a and b:
        print(f"{name}: 4x the input, {b / a:.1f}x the time (linear: about 4)")
print()
EOF
fi

run_rpc

if [ -z "${BENCH_SKIP_SHARED:-}" ]; then
  echo "== builds per second, worker processes sharing one store =="
  # shellcheck disable=SC2086  # the arguments are words on purpose
  "$build/bench/kodrune_bench_shared_store" --wiki "$wiki" ${BENCH_SHARED_ARGS:-}
  echo
fi

[ -n "${BENCH_SKIP_REPO:-}" ] && exit 0

echo "== kodrune-wiki plan on a $repo_files-file repository =="
if [ ! -f "$repo/.bench-ready" ] || [ "$(cat "$repo/.bench-ready")" != "$repo_files" ]; then
  rm -rf "$repo"
  mkdir -p "$repo"
  start=$(date +%s)
  "$build/bench/kodrune_bench_make_repo" "$repo" "$repo_files" 1 >/dev/null
  (
    cd "$repo"
    git init -q -b main
    git add -A
    git config gc.auto 0  # no background repack while timing
    git -c user.name=bench -c user.email=bench@localhost commit -q -m "Generated repository"
  )
  echo "$repo_files" >"$repo/.bench-ready"
  echo "generated in $(($(date +%s) - start)) s"
fi
echo ".bench-ready" >"$repo/.git/info/exclude"

# Median wall time of a command over $runs runs, in ms; `prepare` runs before
# each run, untimed.
median_ms() {
  local prepare=$1
  shift
  local times=()
  for _ in $(seq "$runs"); do
    eval "$prepare"
    local t0 t1
    t0=$(date +%s%N)
    "$@" >/dev/null
    t1=$(date +%s%N)
    times+=($(((t1 - t0) / 1000000)))
  done
  printf '%s\n' "${times[@]}" | sort -n | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}'
}

store="$repo/memory"
git -C "$repo" status >/dev/null  # refresh the index once, as any user's tree has it
status_ms=$(median_ms ":" git -C "$repo" status)
first_ms=$(median_ms "rm -rf '$store'" "$wiki" plan --repo "$repo")
# The store the last first build left behind is the plan of record; one
# rebuild writes the file-hash cache, then nothing changes between runs.
"$wiki" plan --repo "$repo" >/dev/null
rebuild_ms=$(median_ms ":" "$wiki" plan --repo "$repo")
echo "git status:          $status_ms ms"
echo "first build:         $first_ms ms"
echo "rebuild, no change:  $rebuild_ms ms ($(awk -v r="$rebuild_ms" -v s="$status_ms" 'BEGIN {printf "%.2f", r / s}') x git status; target <= 2)"
if [ -x /usr/bin/time ]; then
  /usr/bin/time -v "$wiki" plan --repo "$repo" >/dev/null 2>"$out/time.txt"
  echo "rebuild peak memory: $(awk '/Maximum resident set size/ {printf "%.0f", $6 / 1024}' "$out/time.txt") MiB"
  rm -rf "$store"
  /usr/bin/time -v "$wiki" plan --repo "$repo" >/dev/null 2>"$out/time.txt"
  echo "first build peak memory: $(awk '/Maximum resident set size/ {printf "%.0f", $6 / 1024}' "$out/time.txt") MiB"
fi

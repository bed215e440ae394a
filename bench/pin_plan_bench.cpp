// pin_plan at repository scale, in both modes, on a plan of record one
// development cycle old: the time must grow no faster than n log n in the
// stored rows.
#include <benchmark/benchmark.h>

#include <memory>

#include "generator.hpp"
#include "memory.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_bench {
namespace {

// One workload at a time: the sizes run in turn, and a 32k-row plan of record
// is large enough that keeping all three would skew the memory counters.
const PinWorkload& pin_workload(std::size_t rows) {
  static std::size_t cached_rows = 0;
  static std::unique_ptr<PinWorkload> cached;
  if (!cached || cached_rows != rows) {
    cached.reset();
    cached = std::make_unique<PinWorkload>(make_pin_workload(rows, 20240601));
    cached_rows = rows;
  }
  return *cached;
}

void BM_PinPlan(benchmark::State& state, bool replan) {
  const PinWorkload& work = pin_workload(static_cast<std::size_t>(state.range(0)));
  std::size_t plans_out = 0;
  std::size_t amendments = 0;
  PeakRss rss;
  for (auto _ : state) {
    // Demotion and admission change plans in place: every call gets its own.
    state.PauseTiming();
    wiki::PlanList fresh = clone_plans(work.fresh);
    state.ResumeTiming();
    wiki::PinResult result = wiki::pin_plan(fresh, work.existing, work.live_paths, replan);
    benchmark::DoNotOptimize(result.plans.data());
    state.PauseTiming();
    plans_out = result.plans.size();
    amendments = result.amendments.size();
    result = {};
    fresh.clear();
    state.ResumeTiming();
  }
  rss.report(state);
  state.counters["stored_rows"] = static_cast<double>(work.existing.size());
  state.counters["live_paths"] = static_cast<double>(work.live_paths.size());
  state.counters["fresh_plans"] = static_cast<double>(work.fresh.size());
  state.counters["plans_out"] = static_cast<double>(plans_out);
  state.counters["amendments"] = static_cast<double>(amendments);
}

BENCHMARK_CAPTURE(BM_PinPlan, pinning, false)
    ->Arg(1000)
    ->Arg(8000)
    ->Arg(32000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PinPlan, replan, true)
    ->Arg(1000)
    ->Arg(8000)
    ->Arg(32000)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kodrune_bench

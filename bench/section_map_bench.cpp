// section_map over large written pages: throughput in body bytes per second.
#include <benchmark/benchmark.h>

#include <memory>

#include "generator.hpp"
#include "memory.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_bench {
namespace {

constexpr std::size_t kCitations = 10000;

const SectionWorkload& section_workload(std::size_t bytes) {
  static std::size_t cached_bytes = 0;
  static std::unique_ptr<SectionWorkload> cached;
  if (!cached || cached_bytes != bytes) {
    cached.reset();
    cached = std::make_unique<SectionWorkload>(make_section_workload(bytes, kCitations, 7));
    cached_bytes = bytes;
  }
  return *cached;
}

void BM_SectionMap(benchmark::State& state) {
  const SectionWorkload& work = section_workload(static_cast<std::size_t>(state.range(0)));
  std::size_t sections = 0;
  PeakRss rss;
  for (auto _ : state) {
    wiki::Json map = wiki::section_map(work.body, work.citations, work.file_hashes);
    sections = map.size();
    benchmark::DoNotOptimize(map);
  }
  rss.report(state);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(work.body.size()));
  state.counters["sections"] = static_cast<double>(sections);
  state.counters["citations"] = static_cast<double>(work.citations.size());
  state.counters["cites_in_body"] = static_cast<double>(work.cites_in_body);
}

// The split alone, to tell the fence and heading scan from the citation work.
void BM_Sections(benchmark::State& state) {
  const SectionWorkload& work = section_workload(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    auto sections = wiki::_sections(work.body);
    benchmark::DoNotOptimize(sections.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(work.body.size()));
}

// A page with no "##" heading is one long section: the time must stay linear
// in its length (4 times the bytes, about 4 times the time).
void BM_SectionMapOneSection(benchmark::State& state) {
  const std::size_t bytes = static_cast<std::size_t>(state.range(0));
  const SectionWorkload work = make_section_workload(bytes, bytes / 100, 7, false);
  for (auto _ : state) {
    wiki::Json map = wiki::section_map(work.body, work.citations, work.file_hashes);
    benchmark::DoNotOptimize(map);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                          static_cast<std::int64_t>(work.body.size()));
  state.counters["citations"] = static_cast<double>(work.citations.size());
}

BENCHMARK(BM_SectionMap)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Sections)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SectionMapOneSection)
    ->Arg(64 << 10)
    ->Arg(256 << 10)
    ->Arg(1 << 20)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kodrune_bench

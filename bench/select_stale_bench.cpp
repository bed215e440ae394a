// _select_stale with the file hashes served from memory, so what is timed is
// the selection itself: one hash mapping per stored plan, and the comparison.
#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>

#include "generator.hpp"
#include "memory.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_bench {
namespace {

class MapHost final : public wiki::PlanRecordMixin {
 public:
  explicit MapHost(const StaleWorkload& work) : work_(work) {}

  const std::string& branch() const override { return branch_; }
  const std::filesystem::path& pages_dir() const override { return pages_dir_; }
  const wiki::Existing& _existing() const override { return work_.existing; }
  wiki::WikiStore& repository() override {
    throw std::logic_error("the stale-selection benchmark has no store");
  }
  wiki::Json _source_hashes(const std::vector<std::string>& paths) override {
    wiki::Json out = wiki::Json::object();
    auto& entries = out.get_ref<wiki::Json::object_t&>();
    entries.reserve(paths.size() + 1);
    for (const auto& path : paths) {
      auto found = work_.file_hashes.find(path);
      if (found != work_.file_hashes.end()) entries.emplace(path, found->second);
    }
    return out;
  }

 protected:
  std::string _steering_text() override { return work_.steering_text; }
  void _reload_existing() override {}

 private:
  const StaleWorkload& work_;
  std::string branch_ = "main";
  std::filesystem::path pages_dir_ = "pages";
};

void BM_SelectStale(benchmark::State& state) {
  const StaleWorkload work = make_stale_workload(static_cast<std::size_t>(state.range(0)), 11);
  MapHost host(work);
  std::size_t stale = 0;
  PeakRss rss;
  for (auto _ : state) {
    auto selected = host._select_stale(work.plans, work.existing, false);
    stale = selected.size();
    benchmark::DoNotOptimize(selected);
  }
  rss.report(state);
  state.counters["plans"] = static_cast<double>(work.plans.size());
  state.counters["stale"] = static_cast<double>(stale);
}

BENCHMARK(BM_SelectStale)->Arg(1000)->Arg(10000)->Arg(40000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kodrune_bench

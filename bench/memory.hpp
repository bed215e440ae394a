// Peak resident memory of what a benchmark times. Once the inputs are built,
// the freed heap is handed back to the system and the process's high-water
// mark is reset (Linux: "5" to /proc/self/clear_refs), so the peak read after
// the timed loop is the inputs still held plus what the timed calls used.
#pragma once

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <fstream>
#include <string>
#include <string_view>

namespace kodrune_bench {

// A "Vm..." line of /proc/self/status, in KiB; 0 when it cannot be read.
inline long status_kib(std::string_view key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with(key) && line.size() > key.size() && line[key.size()] == ':') {
      return std::stol(line.substr(key.size() + 1));
    }
  }
  return 0;
}

class PeakRss {
 public:
  PeakRss() {
    malloc_trim(0);
    std::ofstream("/proc/self/clear_refs") << "5";
    base_kib_ = status_kib("VmRSS");
  }

  // peak_MB: the process's peak while timing; op_MB: that peak less what was
  // resident before the first timed call (the inputs).
  void report(benchmark::State& state) const {
    const long peak = status_kib("VmHWM");
    state.counters["peak_MB"] = static_cast<double>(peak) / 1024.0;
    state.counters["op_MB"] = static_cast<double>(peak - base_kib_) / 1024.0;
  }

 private:
  long base_kib_ = 0;
};

}  // namespace kodrune_bench

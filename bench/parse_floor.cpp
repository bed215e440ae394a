// The floor under an rpc request's time: reading the request file and parsing
// it with simdjson's DOM parser, nothing built from it. Prints the median CPU
// time of RUNS runs in milliseconds (CPU time, so that a busy machine does not
// count), for scripts/bench.sh to set beside the time the whole
// `kodrune-wiki rpc` process takes for the same bytes.
//
//   kodrune_bench_parse_floor FILE [RUNS]
#include <simdjson.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <vector>

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::cerr << "usage: kodrune_bench_parse_floor FILE [RUNS]\n";
    return 2;
  }
  const int runs = argc == 3 ? std::max(1, std::atoi(argv[2])) : 5;
  simdjson::dom::parser parser;
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    const std::clock_t start = std::clock();
    simdjson::padded_string text;
    if (simdjson::padded_string::load(argv[1]).get(text) != simdjson::SUCCESS) {
      std::cerr << "parse_floor: cannot read " << argv[1] << "\n";
      return 1;
    }
    simdjson::dom::element root;
    if (parser.parse(text).get(root) != simdjson::SUCCESS) {
      std::cerr << "parse_floor: " << argv[1] << " is not JSON\n";
      return 1;
    }
    const std::clock_t end = std::clock();
    times.push_back(1000.0 * static_cast<double>(end - start) / CLOCKS_PER_SEC);
  }
  std::sort(times.begin(), times.end());
  std::printf("%.1f\n", times[times.size() / 2]);
  return 0;
}

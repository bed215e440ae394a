// kodrune-wiki-harness: the rpc protocol with its test doubles, for the
// golden tests, the fuzz target and the benchmarks.
#include <cstring>
#include <iostream>

#include "harness/harness_ops.hpp"

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "rpc") == 0) {
    return kodrune_cli::rpc::serve_rpc_fd(kodrune_harness::harness_rpc_ops(), 0, 1);
  }
  std::cerr << "usage: kodrune-wiki-harness rpc  (JSON Lines on stdin/stdout)\n";
  return 2;
}

// `kodrune-wiki-harness rpc`: the rpc protocol the golden tests and the fuzz
// target drive (rpc-protocol.md), private helpers and the recording host
// included. Built with the tests and the benchmarks; never installed.
#pragma once

#include "kodrune-wiki/rpc/rpc.hpp"

namespace kodrune_harness {

// Every op the harness serves.
const kodrune_cli::rpc::OpTable& harness_rpc_ops();

}  // namespace kodrune_harness

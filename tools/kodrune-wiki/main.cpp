// kodrune-wiki: the plan of record from the command line.
#include <CLI/CLI.hpp>

#include <iostream>

#include "kodrune-wiki/rpc.hpp"

int main(int argc, char** argv) {
  CLI::App app{"kodrune-wiki: the plan of record of a branch's code wiki"};
  app.require_subcommand(1);
  auto* rpc = app.add_subcommand("rpc", "Serve the plan of record over JSON Lines on stdin/stdout");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  if (rpc->parsed()) {
    std::ios::sync_with_stdio(false);
    return kodrune_cli::serve_rpc(std::cin, std::cout);
  }
  return 0;
}

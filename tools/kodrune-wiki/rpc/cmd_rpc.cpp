// `kodrune-wiki rpc`: the plan of record over JSON Lines on stdin/stdout, its
// store-side operations on the branch's real store (README, "rpc").
#include <iostream>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "kodrune-wiki/rpc/rpc.hpp"

namespace kodrune_cli {

Command add_rpc_command(CLI::App& app) {
  auto options = std::make_shared<CommonOptions>();
  CLI::App* command = app.add_subcommand(
      "rpc", "Serve the plan of record over JSON Lines on stdin/stdout, on the branch's store");
  add_location_options(*command, *options,
                       "Branch whose store to use (default: the current git branch, else main)");
  return Command{command, [options] {
                   // Bad options end the command before any request is read;
                   // the store itself, and the current git branch when none
                   // is given, are found by the first op that needs them: a
                   // worker's pure requests never wait for git.
                   const int checked = run_guarded(
                       [&] {
                         check_repo(*options);
                         if (!options->branch.empty()) options->branch = resolve_branch(*options);
                         resolve_store(options->store);
                         return 0;
                       },
                       std::cerr);
                   if (checked != 0) return checked;
                   const rpc::OpTable ops = rpc::product_rpc_ops([options] {
                     zenthar_kodrune::workers::wiki::WikiGeneratorOptions quiet;
                     quiet.progress = false;  // stderr is the client's, not a terminal's
                     return open_generator(*options, std::move(quiet));
                   });
                   return rpc::serve_rpc_fd(ops, 0, 1);
                 }};
}

}  // namespace kodrune_cli

// kodrune-wiki: the plan of record from the command line.
#include <CLI/CLI.hpp>
#include <iostream>

#include "kodrune-wiki/cmd_common.hpp"
#include "kodrune-wiki/rpc.hpp"

int main(int argc, char** argv) {
  CLI::App app{"kodrune-wiki: the plan of record of a branch's code wiki"};
  app.name("kodrune-wiki");
  app.require_subcommand(1);
  auto* rpc = app.add_subcommand("rpc", "Serve the plan of record over JSON Lines on stdin/stdout");
  // Accepted and checked like every command's; the rpc ops run on recording
  // hosts and open no store.
  std::string rpc_store;
  kodrune_cli::add_store_option(*rpc, rpc_store);
  const kodrune_cli::Command commands[] = {
      kodrune_cli::add_plan_command(app), kodrune_cli::add_save_command(app),
      kodrune_cli::add_changes_command(app), kodrune_cli::add_log_command(app),
      kodrune_cli::add_mcp_command(app)};
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "kodrune-wiki: error: " << e.what() << "\n";
    return 2;
  }
  if (rpc->parsed()) {
    const int checked = kodrune_cli::run_guarded(
        [&] {
          kodrune_cli::resolve_store(rpc_store);
          return 0;
        },
        std::cerr);
    if (checked != 0) return checked;
    return kodrune_cli::serve_rpc_fd(0, 1);
  }
  for (const auto& command : commands) {
    if (command.app->parsed()) return command.run();
  }
  return 0;
}

// kodrune-wiki: the plan of record from the command line.
#include <CLI/CLI.hpp>
#include <iostream>

#include "kodrune-wiki/cli/cmd_common.hpp"

int main(int argc, char** argv) {
  CLI::App app{"kodrune-wiki: the plan of record of a branch's code wiki"};
  app.name("kodrune-wiki");
  app.require_subcommand(1);
  const kodrune_cli::Command commands[] = {
      kodrune_cli::add_plan_command(app),    kodrune_cli::add_save_command(app),
      kodrune_cli::add_changes_command(app), kodrune_cli::add_reanchor_command(app),
      kodrune_cli::add_log_command(app),     kodrune_cli::add_mcp_command(app),
      kodrune_cli::add_rpc_command(app),     kodrune_cli::add_check_command(app),
      kodrune_cli::add_export_command(app),  kodrune_cli::add_serve_command(app)};
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
  for (const auto& command : commands) {
    if (command.app->parsed()) return command.run();
  }
  return 0;
}

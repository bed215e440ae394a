// `kodrune-wiki mcp`: the wiki's tools served over stdio.
#include <csignal>
#include <iostream>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "kodrune-wiki/mcp/mcp_tools.hpp"
#include "workers/wiki/orchestrator/store_url.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace kodrune_cli {

namespace fs = std::filesystem;

Command add_mcp_command(CLI::App& app) {
  auto options = std::make_shared<CommonOptions>();
  CLI::App* command = app.add_subcommand(
      "mcp", "Serve the wiki's tools to an agent: a Model Context Protocol server on stdio");
  add_location_options(*command, *options,
                       "Branch whose wiki to serve (default: the current git branch, else main)");
  return Command{command, [options] {
                   // A bad URL is told at once, not at the first tool call.
                   const int checked = run_guarded(
                       [&] {
                         resolve_store(options->store);
                         return 0;
                       },
                       std::cerr);
                   if (checked != 0) return checked;
                   // A client that goes away mid-answer ends the session, not in a signal.
                   std::signal(SIGPIPE, SIG_IGN);
                   std::ios::sync_with_stdio(false);
                   std::vector<fs::path> store_files;
                   const wiki::orchestrator::StoreUrl store = resolve_store(options->store);
                   if (store.kind == wiki::orchestrator::StoreKind::Sqlite) {
                     const fs::path file =
                         store.target.empty()
                             ? wiki::SqliteWikiStore::default_path(fs::absolute(options->repo))
                             : fs::absolute(store.target);
                     store_files = {file, file.string() + "-wal"};
                   }
                   mcp::WikiService service(
                       [options] {
                         wiki::WikiGeneratorOptions generator_options;
                         // Progress goes to the client, not to a terminal line.
                         generator_options.progress = false;
                         return open_generator(*options, std::move(generator_options));
                       },
                       std::move(store_files));
                   const mcp::ServerInfo info = mcp::wiki_server_info();
                   return mcp::serve(std::cin, std::cout, service, info);
                 }};
}

}  // namespace kodrune_cli

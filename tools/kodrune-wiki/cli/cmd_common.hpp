// What every subcommand of kodrune-wiki shares: the --branch, --repo,
// --store and --json options, opening the orchestrator, and turning failures into one
// line on standard error and an exit code (0 success, 2 usage, 1 other).
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <iosfwd>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "workers/wiki/orchestrator/store_url.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace kodrune_cli {

// The library and its JSON value, as every front end names them.
namespace wiki = zenthar_kodrune::workers::wiki;
using wiki::Json;

// A bad option value found after parsing (exit code 2).
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct CommonOptions {
  std::string branch;  // empty: the current git branch, else "main"
  std::string repo = ".";
  // empty: the default SQLite store under the repository
  std::string store;
  bool json = false;
};

void add_common_options(CLI::App& command, CommonOptions& options);
// --branch, --repo and --store, the branch's help saying what it is for.
void add_location_options(CLI::App& command, CommonOptions& options,
                          const std::string& branch_help);

// --store URL, also read from KODRUNE_WIKI_STORE (store_url.hpp).
void add_store_option(CLI::App& command, std::string& store);

// The store URL checked; a bad one is a UsageError.
wiki::orchestrator::StoreUrl resolve_store(const std::string& store);

// The branch to use: the option checked by git's ref-name rules, else the
// current git branch, else "main". A bad name is a UsageError.
std::string resolve_branch(const CommonOptions& options);

// A UsageError when --repo is not a folder.
void check_repo(const CommonOptions& options);

// The orchestrator for the options (repository folder checked first).
std::unique_ptr<wiki::WikiGenerator> open_generator(
    const CommonOptions& options, wiki::WikiGeneratorOptions generator_options = {});

// The one line a failure is reported with: "kodrune-wiki: error: ...".
std::string error_line(const std::exception& error);

// Runs `body`, printing error_line for a failure.
int run_guarded(const std::function<int()>& body, std::ostream& err);

// `text` percent-encoded for a URI or URL path: every byte but ASCII letters,
// digits and "-._~", and "/" where `keep_slash` (a branch keeps its folders).
std::string percent_encoded(std::string_view text, bool keep_slash);

// `plan --json`: the branch, every planned page with its state, the
// amendments, the remap, the drift warning, the stale pages and why.
wiki::Json plan_json(const std::string& branch, const wiki::BuildResult& result);

// `reanchor --json`: {"reanchored": [{"page_id", "moved", "content_hash", "citations"}]}.
wiki::Json reanchor_json(const std::vector<wiki::ReanchorResult>& results);

// A subcommand as main() sees it: parsed or not, and what running it does.
struct Command {
  CLI::App* app = nullptr;
  std::function<int()> run;
};

// What a subcommand over written pages does with the pages named (none: its
// own default set); `json` asks for one JSON value instead of text.
using PagesRun = std::function<void(wiki::WikiGenerator& generator,
                                    const std::vector<std::string>& page_ids, bool json)>;

// The subcommand `name` over written pages: PAGE_ID... (`pages_help` saying
// which pages none means), the common options, and `run` on the orchestrator.
Command add_pages_command(CLI::App& app, const std::string& name, const std::string& description,
                          const std::string& pages_help, PagesRun run);

Command add_plan_command(CLI::App& app);
Command add_save_command(CLI::App& app);
Command add_changes_command(CLI::App& app);
Command add_reanchor_command(CLI::App& app);
Command add_check_command(CLI::App& app);
Command add_export_command(CLI::App& app);
Command add_log_command(CLI::App& app);
Command add_mcp_command(CLI::App& app);
Command add_rpc_command(CLI::App& app);
Command add_serve_command(CLI::App& app);

}  // namespace kodrune_cli

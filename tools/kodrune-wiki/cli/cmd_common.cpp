// Options, orchestrator opening and error reporting shared by the subcommands.
#include "kodrune-wiki/cli/cmd_common.hpp"

#include <iostream>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/planner.hpp"

namespace kodrune_cli {

namespace fs = std::filesystem;

void add_common_options(CLI::App& command, CommonOptions& options) {
  add_location_options(command, options,
                       "Branch whose wiki to use (default: the current git branch, else main)");
  command.add_flag("--json", options.json, "Print one JSON value instead of text");
}

void add_location_options(CLI::App& command, CommonOptions& options,
                          const std::string& branch_help) {
  command.add_option("--branch", options.branch, branch_help);
  command.add_option("--repo", options.repo, "Repository root (default: .)");
  add_store_option(command, options.store);
}

void add_store_option(CLI::App& command, std::string& store) {
  command
      .add_option("--store", store,
                  "Wiki store: sqlite:PATH or a postgresql:// URI (default: the SQLite file "
                  "under the repository)")
      ->envname(std::string(wiki::orchestrator::STORE_ENV));
}

wiki::orchestrator::StoreUrl resolve_store(const std::string& store) {
  try {
    return wiki::orchestrator::parse_store_url(store);
  } catch (const wiki::ValueError& e) {
    throw UsageError(std::string("--store: ") + e.what());
  }
}

std::string resolve_branch(const CommonOptions& options) {
  std::string branch = options.branch;
  if (branch.empty()) branch = wiki::current_git_branch(options.repo).value_or("main");
  try {
    wiki::check_branch_name(branch);
  } catch (const wiki::ValueError& e) {
    throw UsageError(e.what());
  }
  return branch;
}

void check_repo(const CommonOptions& options) {
  std::error_code ec;
  if (!fs::is_directory(options.repo, ec)) {
    throw UsageError("--repo " + options.repo + " is not a folder");
  }
}

std::unique_ptr<wiki::WikiGenerator> open_generator(const CommonOptions& options,
                                                    wiki::WikiGeneratorOptions generator_options) {
  check_repo(options);
  const std::string branch = resolve_branch(options);
  const wiki::orchestrator::StoreUrl store = resolve_store(options.store);
  return std::make_unique<wiki::WikiGenerator>(
      options.repo, branch, wiki::orchestrator::open_store(store, fs::absolute(options.repo)),
      std::move(generator_options));
}

std::string error_line(const std::exception& error) {
  return std::string("kodrune-wiki: error: ") + error.what();
}

int run_guarded(const std::function<int()>& body, std::ostream& err) {
  try {
    return body();
  } catch (const UsageError& e) {
    err << error_line(e) << "\n";
    return 2;
  } catch (const std::exception& e) {
    err << error_line(e) << "\n";
    return 1;
  }
}

Command add_pages_command(CLI::App& app, const std::string& name, const std::string& description,
                          const std::string& pages_help, PagesRun run) {
  struct PagesOptions {
    CommonOptions common;
    std::vector<std::string> page_ids;
  };
  // Shared with the run, which main() calls once the options are parsed.
  auto options = std::make_shared<PagesOptions>();
  CLI::App* command = app.add_subcommand(name, description);
  command->add_option("PAGE_ID", options->page_ids, pages_help);
  add_common_options(*command, options->common);
  return Command{command, [options, run = std::move(run)] {
                   return run_guarded(
                       [&] {
                         auto generator = open_generator(options->common);
                         run(*generator, options->page_ids, options->common.json);
                         return 0;
                       },
                       std::cerr);
                 }};
}

std::string percent_encoded(std::string_view text, bool keep_slash) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
        (byte >= '0' && byte <= '9') || c == '-' || c == '.' || c == '_' || c == '~' ||
        (keep_slash && c == '/')) {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kHex[byte >> 4]);
      out.push_back(kHex[byte & 15]);
    }
  }
  return out;
}

}  // namespace kodrune_cli

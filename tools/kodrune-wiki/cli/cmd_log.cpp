// `kodrune-wiki log`: the branch's plan audit log, newest last.
#include <iostream>

#include "kodrune-wiki/cli/cmd_common.hpp"

namespace kodrune_cli {

namespace {

struct LogOptions {
  CommonOptions common;
  std::size_t limit = 0;
};

// A field of a log entry as text. The log is read back as it stands, and a
// line that is JSON but not of our making may hold any type anywhere: what is
// not text is shown as its JSON rather than stopping the listing.
std::string field_text(const Json& object, const char* key, const char* missing) {
  if (!object.is_object()) return missing;
  const Json* value = wiki::find_value(object, key);
  if (value == nullptr) return missing;
  if (value->is_string()) return value->get<std::string>();
  return value->dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

Command add_log_command(CLI::App& app) {
  auto options = std::make_shared<LogOptions>();
  CLI::App* command = app.add_subcommand("log", "Show the branch's plan audit log, newest last");
  command->add_option("--limit", options->limit, "Show only the last N entries (default: all)")
      ->check(CLI::NonNegativeNumber);
  add_common_options(*command, options->common);
  return Command{
      command, [options] {
        return run_guarded(
            [&] {
              // The log alone is read: no local store is opened or created.
              std::error_code ec;
              if (!std::filesystem::is_directory(options->common.repo, ec)) {
                throw UsageError("--repo " + options->common.repo + " is not a folder");
              }
              const std::string branch = resolve_branch(options->common);
              const wiki::orchestrator::StoreUrl store = resolve_store(options->common.store);
              // A shared store holds the log every worker wrote; a local one
              // leaves it to the branch's log file.
              const auto read =
                  store.kind == wiki::orchestrator::StoreKind::Postgres
                      ? open_generator(options->common)->plan_log_read(options->limit)
                      : wiki::read_plan_log(std::filesystem::absolute(options->common.repo), branch,
                                            options->limit);
              const auto& entries = read.entries;
              // Every readable entry is shown; the rest are named, not fatal.
              for (const auto& note : read.unreadable) {
                std::cerr << "kodrune-wiki: warning: plan log of " << branch << ", " << note
                          << "\n";
              }
              if (options->common.json) {
                std::cout << Json(entries).dump(-1, ' ', false, Json::error_handler_t::replace)
                          << "\n";
                return 0;
              }
              if (entries.empty()) std::cout << "no amendments logged for " << branch << "\n";
              for (const auto& entry : entries) {
                const Json* amendments = wiki::find_value(entry, "amendments");
                const Json* replan = wiki::find_value(entry, "replan");
                const bool listed = amendments != nullptr && amendments->is_array();
                std::cout << field_text(entry, "at", "?")
                          << (replan != nullptr && replan->is_boolean() && replan->get<bool>()
                                  ? " replan"
                                  : "")
                          << ": " << (listed ? amendments->size() : 0) << " amendments\n";
                if (!listed) continue;
                for (const auto& amendment : *amendments) {
                  std::cout << "  " << field_text(amendment, "action", "?") << " "
                            << field_text(amendment, "page_id", "?") << ": "
                            << field_text(amendment, "reason", "") << "\n";
                }
              }
              return 0;
            },
            std::cerr);
      }};
}

}  // namespace kodrune_cli

// `kodrune-wiki plan`: one build, printed as a table grouped by section, with
// the run's amendments, the replan remap and the drift warning.
#include <algorithm>
#include <iostream>
#include <map>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "workers/wiki/util/quoting.hpp"

namespace kodrune_cli {

namespace {

struct PlanOptions {
  CommonOptions common;
  bool replan = false;
  bool force = false;
};

std::string state_of(const wiki::BuildResult& result, const std::string& id) {
  if (result.new_pages.count(id) != 0) return "new";
  if (result.stale.count(id) != 0) return "stale";
  return "fresh";
}

void print_table(std::ostream& out, const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto& row : rows) {
    if (row.size() == 1) {
      out << "\n" << row[0] << "\n";
      continue;
    }
    std::string line = "  ";
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - row[i].size() + 2, ' ');
    }
    out << line << "\n";
  }
}

// How many distinct files a plan lists. Its list is nearly always sorted and
// distinct already, and then the catch-all page's is not copied to be counted.
std::size_t distinct_file_count(const wiki::PagePlan& plan) {
  return wiki::sorted_and_distinct(plan.source_files) ? plan.source_files.size()
                                                      : plan.stored_source_files().size();
}

void print_plan(std::ostream& out, const std::string& branch, const wiki::BuildResult& result) {
  std::size_t counts[3] = {0, 0, 0};
  for (const auto& plan : result.plans) {
    const std::string state = state_of(result, plan->page_id);
    ++counts[state == "new" ? 0 : state == "stale" ? 1 : 2];
  }
  out << "Plan of branch " << branch << ": " << result.plans.size() << " pages (" << counts[0]
      << " new, " << counts[1] << " stale, " << counts[2] << " fresh)\n";

  // Sections in the order their first page comes in the plan.
  std::vector<std::string> sections;
  std::map<std::string, std::vector<const wiki::PagePlan*>> by_section;
  for (const auto& plan : result.plans) {
    const std::string section = wiki::section_of(*plan);
    if (by_section.count(section) == 0) sections.push_back(section);
    by_section[section].push_back(plan.get());
  }
  std::vector<std::vector<std::string>> rows;
  for (const auto& section : sections) {
    rows.push_back({section});
    rows.push_back({"ID", "TITLE", "LEVEL", "IMPORTANCE", "FILES", "STATE"});
    for (const auto* plan : by_section[section]) {
      std::string state = state_of(result, plan->page_id);
      const auto why = result.why.find(plan->page_id);
      if (why != result.why.end()) state += " (" + why->second + ")";
      const std::size_t files =
          plan->children.empty() ? distinct_file_count(*plan) : plan->children.size();
      rows.push_back(
          {plan->page_id, wiki::util::escaped(plan->title), plan->level, plan->importance,
           plan->children.empty() ? std::to_string(files) : std::to_string(files) + " parts",
           state});
    }
  }
  print_table(out, rows);

  out << (result.amendments.empty() ? "\nAmendments: none\n" : "\nAmendments:\n");
  for (const auto& amendment : result.amendments) {
    out << "  " << amendment.value("action", "?") << " " << amendment.value("page_id", "?");
    if (amendment.contains("level")) out << " [" << amendment.value("level", "") << "]";
    out << ": " << amendment.value("reason", "") << "\n";
  }
  if (!result.remap.map.empty() || !result.remap.merged.empty()) {
    out << "\nRemap:\n";
    for (const auto& [fresh, old] : result.remap.map) {
      if (fresh == old) {
        out << "  " << old << " keeps its own prose\n";
      } else {
        out << "  " << old << " -> " << fresh << " (prose seeds it)\n";
      }
    }
    for (const auto& [fresh, olds] : result.remap.merged) {
      for (const auto& old : olds)
        out << "  " << old << " -> " << fresh << " (prose merged into it)\n";
    }
  }
  if (result.drift) {
    // The warning's text names the agent's remedies; a person at a terminal
    // is given this command's own.
    out << "\nWarning: " << *result.drift << "\n"
        << "From the command line: kodrune-wiki plan --replan\n";
  }
}

}  // namespace

Json plan_json(const std::string& branch, const wiki::BuildResult& result) {
  Json out = Json::object();
  out["branch"] = branch;
  Json plans = Json::array();
  for (const auto& plan : result.plans) {
    Json item = wiki::plan_to_json(*plan);
    item["state"] = state_of(result, plan->page_id);
    plans.push_back(std::move(item));
  }
  out["plans"] = std::move(plans);
  out["amendments"] = Json(result.amendments);
  out["remap"] = result.remap.to_json();
  out["drift"] = result.drift ? Json(*result.drift) : Json(nullptr);
  out["stale"] = Json(std::vector<std::string>(result.stale.begin(), result.stale.end()));
  Json why = Json::object();
  for (const auto& [id, reason] : result.why) why[id] = reason;
  out["why"] = std::move(why);
  return out;
}

Command add_plan_command(CLI::App& app) {
  auto options = std::make_shared<PlanOptions>();
  CLI::App* command = app.add_subcommand(
      "plan", "Run one build: plan, pin to the plan of record, and list the pages to write");
  add_common_options(*command, options->common);
  command->add_flag("--replan", options->replan,
                    "Let the fresh structure win, carrying old prose onto it");
  command->add_flag("--force", options->force, "Select every page for writing");
  return Command{command, [options] {
                   return run_guarded(
                       [&] {
                         auto generator = open_generator(options->common);
                         const auto result = generator->build(options->replan, options->force);
                         if (options->common.json) {
                           std::cout << plan_json(generator->branch(), result)
                                            .dump(-1, ' ', false, Json::error_handler_t::replace)
                                     << "\n";
                         } else {
                           print_plan(std::cout, generator->branch(), result);
                         }
                         return 0;
                       },
                       std::cerr);
                 }};
}

}  // namespace kodrune_cli

// Plan records: a stored row back as a plan, the catch-all id pattern, and the
// order in which plans are built and listed.
#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <string>
#include <utility>

#include "zenthar_kodrune/workers/wiki/page_sources.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki_types.hpp"

namespace zenthar_kodrune::workers::wiki {

// "$" would also match before a final newline; DOLLAR_ENDONLY keeps
// "module-additional\n" from passing as a catch-all id. Without UCP, \d is
// ASCII digits only.
const Regex _CATCH_ALL_RE("^module-additional(-\\d+)?$", PCRE2_DOLLAR_ENDONLY);

PlanPtr _plan_from_row(const Json& row, const PathSet& live_paths) {
  // Live files only, in plain string order; repeats are kept as stored.
  std::vector<std::string> kept;
  for (auto& path : row_text_list(row, "source_files")) {
    if (live_paths.count(path) != 0) kept.push_back(std::move(path));
  }
  std::sort(kept.begin(), kept.end());

  std::string title = row_text(row, "title");
  const std::string page_id = row_page_id(row);
  if (title.empty()) title = page_id;

  PagePlan plan;
  plan.page_id = page_id;
  plan.level = row_text(row, "level", "module");
  plan.importance = row_text(row, "importance", "medium");
  plan.description = row_text(row, "description");
  // A stored description is kept as written even when the count it mentions
  // is out of date; only a missing one is generated from the live files.
  if (plan.description.empty()) {
    plan.description = "The " + title + " page (" + std::to_string(kept.size()) + " files).";
  }
  plan.topic = unit_topic(title, kept);
  plan.title = std::move(title);
  plan.source_files = std::move(kept);
  plan.catch_all = _CATCH_ALL_RE.full_match(page_id);
  plan.type = row_text(row, "page_type");
  return make_plan(std::move(plan));
}

PlanList _by_importance(const PlanList& plans) {
  PlanList ordered = plans;
  // Stable: pages that are not code units keep their given order, and code
  // units of equal importance keep the planner's order.
  std::stable_sort(ordered.begin(), ordered.end(), [](const PlanPtr& a, const PlanPtr& b) {
    const bool a_code = is_pinned_level(a->level);
    const bool b_code = is_pinned_level(b->level);
    if (a_code != b_code) return !a_code;
    if (!a_code) return false;
    return a->importance_score() > b->importance_score();
  });
  return ordered;
}

}  // namespace zenthar_kodrune::workers::wiki

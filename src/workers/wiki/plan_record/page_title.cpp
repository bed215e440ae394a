// Page titles: once a page has been written, the title its author chose wins
// over the planner's, so a rename made while writing survives later builds.
// A row that was never written (no content hash) is a skeleton whose title is
// the planner's own, and is left alone.
#include "workers/wiki/plan_record/page_title.hpp"

#include <cstddef>
#include <vector>

#include "workers/wiki/plan_record/row_facts.hpp"

namespace zenthar_kodrune::workers::wiki::plan_record {

namespace {

void keep_title(PagePlan& plan, const Json& row, const Json* content_hash, const Json* title) {
  if (content_hash == nullptr || is_empty(*content_hash)) return;
  if (title == nullptr || is_empty(*title)) return;
  // Read in place; a title that is not text raises row_text's own error.
  if (!title->is_string()) row_text(row, "title");
  plan.title = title->get_ref<const std::string&>();
}

}  // namespace

PlanList keep_agent_titles(PlanList plans, const Existing& existing) {
  for (const auto& plan : plans) {
    auto found = existing.find(plan->page_id);
    if (found == existing.end()) continue;
    const Json& row = found->second;
    const Json* content_hash = find_value(row, "content_hash");
    if (content_hash == nullptr || is_empty(*content_hash)) continue;
    keep_title(*plan, row, content_hash, find_value(row, "title"));
  }
  return plans;
}

PlanList keep_agent_titles(PlanList plans, const Existing& existing,
                           const std::vector<RowFacts>& facts) {
  for (const auto& plan : plans) {
    auto found = existing.find(plan->page_id);
    if (found == existing.end()) continue;
    keep_agent_title(*plan, found->second,
                     facts[static_cast<std::size_t>(found - existing.begin())]);
  }
  return plans;
}

void keep_agent_title(PagePlan& plan, const Json& row, const RowFacts& facts) {
  keep_title(plan, row, facts.content_hash, facts.title);
}

}  // namespace zenthar_kodrune::workers::wiki::plan_record

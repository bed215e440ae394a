// Page retirement: retired pages leave the store, and a replan replaces the
// branch's code-unit rows by the skeleton of the new plan.
#include "zenthar_kodrune/workers/wiki/page_retirement.hpp"

#include <unordered_set>

#include "zenthar_kodrune/workers/wiki/store.hpp"

namespace zenthar_kodrune::workers::wiki {

void PageRetirementMixin::_retire_pages(const std::vector<std::string>& page_ids) {
  if (page_ids.empty()) return;
  repository().delete_pages(branch(), page_ids);
}

void PageRetirementMixin::_apply_replan(const PlanList& plans) {
  std::unordered_set<std::string> planned;
  for (const auto& plan : plans) {
    if (plan) planned.insert(plan->page_id);
  }
  std::vector<std::string> retired;
  for (const auto& [page_id, row] : _existing()) {
    // An empty level reads as the plan default, "module": a code-unit page.
    if (is_pinned_level(row_text(row, "level", "module")) && !planned.contains(page_id)) {
      retired.push_back(page_id);
    }
  }
  // One scope for the whole replan: the old rows go only if the new skeleton
  // is stored.
  auto scope = repository().db().transaction();
  _retire_pages(retired);
  _reload_existing();
  _persist_plan_skeleton(plans);
}

}  // namespace zenthar_kodrune::workers::wiki

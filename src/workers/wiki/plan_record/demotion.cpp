// Unrecorded family demotion: a fresh family the store does not hold gives way
// to the stored pages that already document its files.
//
// The planner names a family by its unit, while the plan of record may already
// pin a plain page over the same files. Passing the family through whole would
// document those files twice, so its parent is dropped and its parts go on as
// ordinary fresh pages, which pinning then lets claim only unpinned files.
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki_types.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

// Files of stored pages that pinning will keep under their ids. Stored paths
// count as they stand, live or not: the page still claims them.
std::unordered_set<std::string> pinned_files_of(const Existing& existing) {
  std::unordered_set<std::string> files;
  for (const auto& [page_id, row] : existing) {
    if (!is_pinned_level(row_text(row, "level", "module"))) continue;
    if (page_id.starts_with("custom-")) continue;
    if (_CATCH_ALL_RE.full_match(page_id)) continue;
    for (auto& path : row_text_list(row, "source_files")) files.insert(std::move(path));
  }
  return files;
}

}  // namespace

PlanList _demote_unrecorded_families(const PlanList& fresh_plans, const Existing& existing) {
  const std::unordered_set<std::string> pinned_files = pinned_files_of(existing);
  if (pinned_files.empty()) return fresh_plans;

  // A later plan of the same id is the one found, as in the planner's output.
  std::unordered_map<std::string_view, PlanPtr> plans_by_id;
  plans_by_id.reserve(fresh_plans.size());
  for (const auto& plan : fresh_plans) plans_by_id.insert_or_assign(plan->page_id, plan);

  std::unordered_set<std::string_view> dropped_ids;
  for (const auto& parent : fresh_plans) {
    if (parent->children.empty()) continue;
    if (existing.find(parent->page_id) != existing.end()) continue;
    if (!is_pinned_level(parent->level)) continue;

    PlanList parts;
    parts.reserve(parent->children.size());
    for (const auto& child_id : parent->children) {
      auto found = plans_by_id.find(child_id);
      if (found != plans_by_id.end()) parts.push_back(found->second);
    }
    bool overlaps = false;
    for (const auto& part : parts) {
      for (const auto& path : part->source_files) {
        if (pinned_files.count(path) != 0) {
          overlaps = true;
          break;
        }
      }
      if (overlaps) break;
    }
    if (!overlaps) continue;

    dropped_ids.insert(parent->page_id);
    for (const auto& part : parts) part->parent_section = parent->parent_section;
  }

  PlanList kept;
  kept.reserve(fresh_plans.size());
  for (const auto& plan : fresh_plans) {
    if (dropped_ids.count(plan->page_id) == 0) kept.push_back(plan);
  }
  return kept;
}

}  // namespace zenthar_kodrune::workers::wiki

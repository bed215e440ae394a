// Unrecorded family demotion: a fresh family the store does not hold gives way
// to the stored pages that already document its files.
//
// The planner names a family by its unit, while the plan of record may already
// pin a plain page over the same files. Passing the family through whole would
// document those files twice, so its parent is dropped and its parts go on as
// ordinary fresh pages, which pinning then lets claim only unpinned files.
#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/plan_record/row_facts.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

// The "source_files" of each stored page that pinning will keep under its id.
// Stored paths count as they stand, live or not: the page still claims them.
// Every row is read, so a bad row fails here whether or not a family needs it.
std::vector<const Json*> pinned_file_lists(const Existing& existing,
                                           const std::vector<plan_record::RowFacts>& facts) {
  std::vector<const Json*> lists;
  std::size_t i = 0;
  for (const auto& [page_id, row] : existing) {
    const plan_record::RowFacts& row_facts = facts[i++];
    plan_record::row_level(row, row_facts);
    if (!row_facts.pinned_level) continue;
    if (model::is_custom_id(page_id) || is_catch_all_id(page_id)) continue;
    if (const Json* files =
            plan_record::row_text_list_in_place(row, row_facts.source_files, "source_files")) {
      lists.push_back(files);
    }
  }
  return lists;
}

}  // namespace

PlanList _demote_unrecorded_families(const PlanList& fresh_plans, const Existing& existing) {
  return plan_record::demote_unrecorded_families(fresh_plans, existing,
                                                 plan_record::row_facts(existing));
}

PlanList plan_record::demote_unrecorded_families(const PlanList& fresh_plans,
                                                 const Existing& existing,
                                                 const std::vector<plan_record::RowFacts>& facts) {
  const std::vector<const Json*> pinned_lists = pinned_file_lists(existing, facts);
  if (pinned_lists.empty()) return fresh_plans;

  // The fresh families the store does not hold; most builds have none, and
  // then no plan needs indexing.
  auto may_give_way = [&](const PagePlan& parent) {
    return !parent.children.empty() && is_pinned_level(parent.level) &&
           existing.find(parent.page_id) == existing.end();
  };
  if (std::none_of(fresh_plans.begin(), fresh_plans.end(),
                   [&](const PlanPtr& plan) { return may_give_way(*plan); })) {
    return fresh_plans;
  }

  // A later plan of the same id is the one found, as in the planner's output.
  std::unordered_map<std::string_view, PlanPtr> plans_by_id;
  plans_by_id.reserve(fresh_plans.size());
  for (const auto& plan : fresh_plans) plans_by_id.insert_or_assign(plan->page_id, plan);

  // The families that may give way, with their parts. Only their parts' files
  // are looked up among the stored ones, so the stored paths (every file of
  // the repository) are hashed once and never copied.
  struct Family {
    const PlanPtr* parent;
    PlanList parts;
  };
  std::vector<Family> candidates;
  std::unordered_map<std::string_view, bool> part_file_pinned;
  for (const auto& parent : fresh_plans) {
    if (!may_give_way(*parent)) continue;

    Family family{&parent, {}};
    family.parts.reserve(parent->children.size());
    for (const auto& child_id : parent->children) {
      auto found = plans_by_id.find(child_id);
      if (found == plans_by_id.end()) continue;
      family.parts.push_back(found->second);
      for (const auto& path : found->second->source_files) part_file_pinned.emplace(path, false);
    }
    candidates.push_back(std::move(family));
  }
  if (candidates.empty()) return fresh_plans;

  if (!part_file_pinned.empty()) {
    for (const Json* files : pinned_lists) {
      for (const auto& item : *files) {
        auto found = part_file_pinned.find(item.get_ref<const std::string&>());
        if (found != part_file_pinned.end()) found->second = true;
      }
    }
  }

  std::unordered_set<std::string_view> dropped_ids;
  for (const auto& family : candidates) {
    const bool overlaps =
        std::any_of(family.parts.begin(), family.parts.end(), [&](const PlanPtr& part) {
          return std::any_of(part->source_files.begin(), part->source_files.end(),
                             [&](const std::string& path) { return part_file_pinned.at(path); });
        });
    if (!overlaps) continue;

    const PagePlan& parent = **family.parent;
    dropped_ids.insert(parent.page_id);
    for (const auto& part : family.parts) part->parent_section = parent.parent_section;
  }

  PlanList kept;
  kept.reserve(fresh_plans.size());
  for (const auto& plan : fresh_plans) {
    if (dropped_ids.count(plan->page_id) == 0) kept.push_back(plan);
  }
  return kept;
}

}  // namespace zenthar_kodrune::workers::wiki

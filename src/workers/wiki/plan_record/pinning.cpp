// Plan pinning: reconciles each build's fresh structural plan against the
// stored plan of record.
//
// Stored code-unit pages keep their ids for ever; only a decomposed family may
// be re-cut, its superseded children retiring with their prose carried into
// the fresh family. New files become new pages (or go to the catch-all page),
// pages left without files retire, and every such change is an amendment. A
// replan lets the fresh structure win and carries old prose by file overlap.
//
// This file holds the call and its classification: stored families, the
// stored children a fresh family supersedes, which stored rows keep their
// identity, and which fresh plans pass through untouched. The pinning-mode
// assembly that follows is pinned_assembly.cpp. The working collections keep
// the names of the algorithm they serve; plans are shared with the caller.
#include "workers/wiki/plan_record/pinning.hpp"

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/plan_record/row_facts.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/replan_carry.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

// A stored child to retire, and the fresh plans its prose may go to. Every
// superseded child of one family shares that family's plan list.
struct Superseded {
  std::string_view reason;
  std::shared_ptr<const PlanList> family_plans;
};

// The stored decomposed families, from the store's own record: a code-unit
// row whose "related_pages" name stored pages is a family parent, whatever
// its own files. Each row's level is kept in `levels`, in stored order, for
// the later passes: read once here, so a bad level fails before any pinning.
plan_record::StoredFamilies stored_families_of(const Existing& existing,
                                               const std::vector<plan_record::RowFacts>& facts,
                                               std::vector<std::string_view>& levels) {
  plan_record::StoredFamilies families;
  levels.reserve(existing.size());
  std::size_t i = 0;
  for (const auto& [page_id, row] : existing) {
    const plan_record::RowFacts& row_facts = facts[i++];
    levels.push_back(plan_record::row_level(row, row_facts));
    if (!row_facts.pinned_level || model::is_custom_id(page_id)) continue;
    const Json* related =
        plan_record::row_text_list_in_place(row, row_facts.related_pages, "related_pages");
    if (related == nullptr) continue;
    std::vector<std::string> kids;
    for (const auto& item : *related) {
      const auto& kid = item.get_ref<const std::string&>();
      if (existing.find(kid) != existing.end()) kids.push_back(kid);
    }
    if (!kids.empty()) families.emplace(page_id, std::move(kids));
  }
  return families;
}

// The stored children that fresh families supersede: a re-chunked family's
// children the fresh split dropped, and every child of a family the planner
// now plans undivided. Fills the family ids and the collapsed parents too.
tsl::ordered_map<std::string_view, Superseded> superseded_children(const PlanList& fresh_plans,
                                                                   plan_record::Classified& c) {
  tsl::ordered_map<std::string_view, Superseded> superseded_kids;
  // The last fresh plan of each id, as a position in `fresh_plans`; only a
  // re-chunked stored family needs it, so it is built on first use.
  tsl::ordered_map<std::string_view, std::size_t> fresh_by_page;
  auto fresh_plan_of = [&](std::string_view page_id) -> const PlanPtr* {
    if (fresh_by_page.empty()) {
      fresh_by_page.reserve(fresh_plans.size());
      for (std::size_t i = 0; i < fresh_plans.size(); ++i) {
        fresh_by_page.insert_or_assign(fresh_plans[i]->page_id, i);
      }
    }
    auto found = fresh_by_page.find(page_id);
    return found != fresh_by_page.end() ? &fresh_plans[found->second] : nullptr;
  };

  for (const auto& p : fresh_plans) {
    if (!is_pinned_level(p->level)) continue;
    auto stored =
        c.stored_families.empty() ? c.stored_families.end() : c.stored_families.find(p->page_id);
    if (!p->children.empty()) {
      c.family_ids.insert(p->page_id);
      c.family_ids.insert(p->children.begin(), p->children.end());
      if (stored == c.stored_families.end()) continue;
      auto fresh_kids = std::make_shared<PlanList>();
      for (const auto& child_id : p->children) {
        if (const PlanPtr* found = fresh_plan_of(child_id)) fresh_kids->push_back(*found);
      }
      const std::unordered_set<std::string_view> still_children(p->children.begin(),
                                                                p->children.end());
      for (const auto& kid : stored->second) {
        if (still_children.count(kid) == 0) {
          superseded_kids.insert_or_assign(
              kid, Superseded{"module re-chunked; superseded child", fresh_kids});
        }
      }
    } else if (stored != c.stored_families.end()) {
      c.collapsed.insert(p->page_id);
      auto undivided = std::make_shared<const PlanList>(PlanList{p});
      for (const auto& kid : stored->second) {
        superseded_kids.insert_or_assign(
            kid, Superseded{"module no longer oversized; decomposition collapsed", undivided});
      }
    }
  }
  return superseded_kids;
}

// Sorts the stored rows (which keep their identity) and the fresh plans
// (which pinning may replace or admit, and which pass through), and makes
// the amendments common to both modes, in their order.
void classify(const PlanList& fresh_plans, const Existing& existing,
              const std::vector<plan_record::RowFacts>& facts, const PathSet& live_paths,
              plan_record::Classified& c, const IdViews& fresh_ids, Amendments& amendments,
              ReplanRemap& remap) {
  std::vector<std::string_view> levels;
  c.stored_families = stored_families_of(existing, facts, levels);
  const auto superseded_kids = superseded_children(fresh_plans, c);

  // Whether a stored row keeps its identity as a pinned page; the first rule
  // that applies decides. Evaluated once per row, in stored order, so its
  // amendments come in that order. The id is hashed once for all its tests.
  auto _pinnable = [&](const std::string& pid, const Json& row,
                       const plan_record::RowFacts& row_facts) {
    if (!row_facts.pinned_level) return false;
    const std::size_t hash = std::hash<std::string_view>{}(pid);
    if (auto found = superseded_kids.find(pid, hash); found != superseded_kids.end()) {
      amendments.push_back(carry_superseded(remap, pid, row, *found->second.family_plans,
                                            live_paths, std::string(found->second.reason)));
      return false;
    }
    if (c.family_ids.count(pid, hash) != 0) return false;
    if (model::is_custom_id(pid)) return false;
    // A collapsed family parent stays as an undivided page though its row,
    // a synthesis page's, has no files.
    if (c.collapsed.count(pid, hash) != 0) return true;
    if (c.stored_families.count(pid, hash) != 0) return false;
    const Json* files = row_facts.source_files;
    if (files == nullptr || is_empty(*files)) {
      amendments.push_back(amend("retire", pid, "decomposition changed; empty parent"));
      return false;
    }
    return true;
  };
  // The same pass finds the custom pages no longer steered and the pages of
  // other levels no longer planned; their amendments follow, in their places.
  // Note pages are the author's; they are never retired for not being planned.
  Amendments unsteered;
  Amendments unplanned;
  std::size_t row_index = 0;
  for (const auto& [pid, row] : existing) {
    const std::size_t i = row_index++;
    const std::string_view level = levels[i];
    if (_pinnable(pid, row, facts[i])) c.pinned_existing.push_back({&pid, &row, &facts[i], i});
    if (model::is_custom_id(pid) && fresh_ids.count(pid) == 0) {
      unsteered.push_back(amend("retire", pid, "removed from steering"));
    }
    if (!facts[i].pinned_level && level != NOTE_LEVEL && fresh_ids.count(pid) == 0) {
      unplanned.push_back(
          amend("retire", pid, std::string(level) + " page no longer planned", level));
    }
  }

  for (const auto& plan : fresh_plans) {
    if (is_pinned_level(plan->level) && c.family_ids.count(plan->page_id) == 0 &&
        !model::is_custom_id(plan->page_id)) {
      c.fresh_modules.push_back(plan);
    } else {
      c.passthrough.push_back(plan);
    }
  }

  for (auto& record : unsteered) amendments.push_back(std::move(record));
  for (const auto& plan : c.passthrough) {
    if (existing.find(plan->page_id) == existing.end()) {
      amendments.push_back(
          amend("add", plan->page_id, "new " + plan->level + " page", plan->level));
    }
  }
  for (auto& record : unplanned) amendments.push_back(std::move(record));
}

}  // namespace

PinResult pin_plan(const PlanList& fresh_plans_in, const Existing& existing,
                   const PathSet& live_paths, bool replan) {
  PinResult result;
  const std::vector<plan_record::RowFacts> facts = plan_record::row_facts(existing);

  // A replan adopts fresh families, so only pinning demotes them.
  PlanList demoted;
  if (!replan) demoted = plan_record::demote_unrecorded_families(fresh_plans_in, existing, facts);
  const PlanList& fresh_plans = replan ? fresh_plans_in : demoted;

  IdViews fresh_ids;
  fresh_ids.reserve(fresh_plans.size());
  for (const auto& plan : fresh_plans) fresh_ids.insert(plan->page_id);

  plan_record::Classified c;
  classify(fresh_plans, existing, facts, live_paths, c, fresh_ids, result.amendments, result.remap);

  if (!replan && !c.pinned_existing.empty()) {
    result.plans = plan_record::assemble_pinned(c, existing, facts, live_paths, result.amendments);
    return result;
  }

  if (replan && !c.pinned_existing.empty()) {
    PlanList fresh_code_plans;
    for (const auto& plan : fresh_plans) {
      if (is_pinned_level(plan->level) && !plan->source_files.empty() &&
          !model::is_custom_id(plan->page_id)) {
        fresh_code_plans.push_back(plan);
      }
    }
    RowRefs pinned_rows;
    pinned_rows.reserve(c.pinned_existing.size());
    for (const auto& pinned : c.pinned_existing)
      pinned_rows.emplace_back(*pinned.page_id, pinned.row);
    inherit_prose(result.remap, pinned_rows, fresh_code_plans, live_paths, fresh_ids,
                  result.amendments);
  }
  // No importance order here: a first plan or a replan keeps the planner's.
  result.plans = link_families(plan_record::keep_agent_titles(fresh_plans, existing, facts));
  return result;
}

}  // namespace zenthar_kodrune::workers::wiki

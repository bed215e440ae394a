// Plan pinning: reconciles each build's fresh structural plan against the
// stored plan of record.
//
// Stored code-unit pages keep their ids for ever; only a decomposed family may
// be re-cut, its superseded children retiring with their prose carried into
// the fresh family. New files become new pages (or go to the catch-all page),
// pages left without files retire, and every such change is an amendment. A
// replan lets the fresh structure win and carries old prose by file overlap.
//
// The working collections keep the names of the algorithm they serve. All
// membership tests go through sets and maps, and plans are shared with the
// caller: admitted and extended plans change in place.
#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/page_sources.hpp"
#include "zenthar_kodrune/workers/wiki/page_title.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/replan_carry.hpp"
#include "zenthar_kodrune/workers/wiki_types.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

using IdSet = std::unordered_set<std::string>;
using StoredFamilies = tsl::ordered_map<std::string, std::vector<std::string>>;

constexpr std::string_view kCatchAllId = "module-additional";
constexpr std::string_view kCatchAllTitle = "Other code";
constexpr std::size_t kCatchAllSamples = 12;

bool is_custom(std::string_view page_id) { return page_id.starts_with("custom-"); }

std::string row_level(const Json& row) { return row_text(row, "level", "module"); }

// A stored child to retire, and the fresh plans its prose may go to. Every
// superseded child of one family shares that family's plan list.
struct Superseded {
  std::string_view reason;
  std::shared_ptr<const PlanList> family_plans;
};

// What the classification hands on to the pinning-mode assembly.
struct Classified {
  PlanList fresh_plans;
  StoredFamilies stored_families;
  IdSet family_ids;
  IdSet collapsed;
  RowRefs pinned_existing;
  PlanList fresh_modules;
  PlanList passthrough;
};

// The stored decomposed families, from the store's own record: a code-unit
// row whose "related_pages" name stored pages is a family parent, whatever
// its own files.
StoredFamilies stored_families_of(const Existing& existing) {
  StoredFamilies families;
  for (const auto& [page_id, row] : existing) {
    if (!is_pinned_level(row_level(row)) || is_custom(page_id)) continue;
    std::vector<std::string> kids;
    for (auto& kid : row_text_list(row, "related_pages")) {
      if (existing.find(kid) != existing.end()) kids.push_back(std::move(kid));
    }
    if (!kids.empty()) families.emplace(page_id, std::move(kids));
  }
  return families;
}

// The sorted, distinct union of two path lists.
std::vector<std::string> sorted_union(const std::vector<std::string>& a,
                                      const std::vector<std::string>& b) {
  std::vector<std::string> out;
  out.reserve(a.size() + b.size());
  out.insert(out.end(), a.begin(), a.end());
  out.insert(out.end(), b.begin(), b.end());
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

std::string_view last_component(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// A stored family parent the planner no longer proposes, rebuilt as a
// synthesis page over the children that were kept.
PlanPtr rebuilt_family_parent(const std::string& parent_id, const Json& row,
                              const std::vector<std::string>& surviving, const Existing& existing) {
  PagePlan plan;
  plan.page_id = parent_id;
  plan.title = row_text(row, "title", parent_id);
  plan.level = row_level(row);
  plan.importance = row_text(row, "importance", "medium");
  plan.description = row_text(row, "description");
  if (plan.description.empty()) plan.description = "The " + plan.title + " page.";
  // The children's stored files as they stand: the topic describes the family
  // as recorded, repeats included.
  std::vector<std::string> kid_files;
  for (const auto& kid : surviving) {
    for (auto& path : row_text_list(existing.at(kid), "source_files")) {
      kid_files.push_back(std::move(path));
    }
  }
  plan.topic = unit_topic(plan.title, kid_files);
  plan.children = surviving;
  plan.related_pages = surviving;
  plan.type = row_text(row, "page_type");
  return make_plan(std::move(plan));
}

PlanPtr catch_all_page(const Json* catch_all_row, const std::unordered_set<std::string>& files) {
  std::vector<std::string> sorted(files.begin(), files.end());
  std::sort(sorted.begin(), sorted.end());
  std::string samples;
  for (std::size_t i = 0; i < sorted.size() && i < kCatchAllSamples; ++i) {
    if (i > 0) samples += ' ';
    samples += last_component(sorted[i]);
  }
  PagePlan plan;
  plan.page_id = catch_all_row != nullptr ? row_page_id(*catch_all_row) : std::string(kCatchAllId);
  plan.title = catch_all_row != nullptr ? row_text(*catch_all_row, "title", kCatchAllTitle)
                                        : std::string(kCatchAllTitle);
  plan.level = "module";
  plan.importance = "low";
  plan.description = "Remaining modules and files (" + std::to_string(sorted.size()) + " files).";
  plan.topic = "additional modules utilities helpers " + samples;
  plan.source_files = std::move(sorted);
  plan.catch_all = true;
  plan.type = std::string(OTHER_CODE_TYPE);
  return make_plan(std::move(plan));
}

// The pinning mode: stored identities are kept, stored families rebuilt or
// retired, new files given to fresh pages or the catch-all page, and the
// plans put in build order.
PlanList assemble_pinned(const Classified& c, const Existing& existing, const PathSet& live_paths,
                         Amendments& amendments) {
  PlanList plans = c.passthrough;
  std::unordered_set<std::string> covered;
  // The first plan of `plans` with a given id, kept as `plans` grows, so an
  // extension finds its page without a scan.
  std::unordered_map<std::string, PagePlan*> first_in_plans;
  auto add_plan = [&](const PlanPtr& plan) {
    plans.push_back(plan);
    first_in_plans.try_emplace(plan->page_id, plan.get());
  };
  for (const auto& plan : plans) {
    first_in_plans.try_emplace(plan->page_id, plan.get());
    covered.insert(plan->source_files.begin(), plan->source_files.end());
  }
  IdSet kept_ids;
  const Json* catch_all_row = nullptr;
  std::unordered_map<std::string_view, PlanPtr> fresh_by_id;
  for (const auto& plan : c.fresh_modules) {
    if (!plan->catch_all) fresh_by_id.insert_or_assign(plan->page_id, plan);
  }

  for (const auto& [pid, row] : c.pinned_existing) {
    PlanPtr plan = _plan_from_row(*row, live_paths);
    if (plan->catch_all) {
      // Only the last stored catch-all page is carried on; an earlier one is
      // neither kept nor retired.
      catch_all_row = row;
      continue;
    }
    auto fresh_same = fresh_by_id.find(pid);
    if (plan->source_files.empty() && fresh_same == fresh_by_id.end()) {
      amendments.push_back(amend("retire", pid, "all source files gone"));
      continue;
    }
    // The page keeps its id; the planner's plan of that id supplies content.
    if (fresh_same != fresh_by_id.end()) plan = fresh_same->second;
    add_plan(plan);
    kept_ids.insert(pid);
    covered.insert(plan->source_files.begin(), plan->source_files.end());
  }

  for (const auto& [parent_id, kids] : c.stored_families) {
    if (c.family_ids.count(parent_id) != 0 || c.collapsed.count(parent_id) != 0) continue;
    std::vector<std::string> surviving;
    for (const auto& kid : kids) {
      if (kept_ids.count(kid) != 0) surviving.push_back(kid);
    }
    if (surviving.empty()) {
      amendments.push_back(amend("retire", parent_id, "all decomposed children retired"));
      continue;
    }
    add_plan(rebuilt_family_parent(parent_id, existing.at(parent_id), surviving, existing));
    kept_ids.insert(parent_id);
  }

  std::unordered_set<std::string> catch_all_files;
  if (catch_all_row != nullptr) {
    for (auto& path : row_text_list(*catch_all_row, "source_files")) {
      if (live_paths.count(path) == 0) continue;
      covered.insert(path);
      catch_all_files.insert(std::move(path));
    }
  }

  std::unordered_set<std::string> new_paths;
  for (const auto& path : live_paths) {
    if (covered.count(path) == 0) new_paths.insert(path);
  }

  // New files go to the first fresh code-unit plan listing them: a plan with
  // enough of them becomes (or extends) a page, a lone file goes to the
  // catch-all page. Fresh plans that claim nothing are dropped.
  for (const auto& plan : c.fresh_modules) {
    if (new_paths.empty()) break;
    std::vector<std::string> own_new;
    for (const auto& path : plan->source_files) {
      if (new_paths.count(path) != 0) own_new.push_back(path);
    }
    if (own_new.empty()) continue;
    std::sort(own_new.begin(), own_new.end());
    own_new.erase(std::unique(own_new.begin(), own_new.end()), own_new.end());

    if (own_new.size() >= _MIN_NEW_PAGE_FILES && !plan->catch_all) {
      const std::string count = std::to_string(own_new.size());
      if (kept_ids.count(plan->page_id) != 0) {
        auto found = first_in_plans.find(plan->page_id);
        if (found != first_in_plans.end()) {
          found->second->source_files = sorted_union(found->second->source_files, own_new);
        }
        amendments.push_back(
            amend("extend", plan->page_id, count + " new source file(s) absorbed"));
      } else {
        // The new page keeps only the files no kept page holds.
        plan->source_files = own_new;
        add_plan(plan);
        kept_ids.insert(plan->page_id);
        amendments.push_back(amend("add", plan->page_id, "new subsystem (" + count + " files)"));
      }
    } else {
      catch_all_files.insert(own_new.begin(), own_new.end());
    }
    for (const auto& path : own_new) new_paths.erase(path);
  }
  catch_all_files.insert(new_paths.begin(), new_paths.end());

  if (!catch_all_files.empty()) {
    add_plan(catch_all_page(catch_all_row, catch_all_files));
  } else if (catch_all_row != nullptr) {
    amendments.push_back(
        amend("retire", row_page_id(*catch_all_row), "catch-all has no remaining files"));
  }

  return link_families(keep_agent_titles(_by_importance(plans), existing));
}

}  // namespace

PinResult pin_plan(const PlanList& fresh_plans_in, const Existing& existing,
                   const PathSet& live_paths, bool replan) {
  PinResult result;
  Amendments& amendments = result.amendments;
  ReplanRemap& remap = result.remap;
  Classified c;

  // A replan adopts fresh families, so only pinning demotes them.
  c.fresh_plans = replan ? fresh_plans_in : _demote_unrecorded_families(fresh_plans_in, existing);
  const PlanList& fresh_plans = c.fresh_plans;

  c.stored_families = stored_families_of(existing);

  std::unordered_map<std::string, Superseded> superseded_kids;
  std::unordered_map<std::string_view, PlanPtr> fresh_by_page;
  fresh_by_page.reserve(fresh_plans.size());
  for (const auto& plan : fresh_plans) fresh_by_page.insert_or_assign(plan->page_id, plan);

  for (const auto& p : fresh_plans) {
    if (!is_pinned_level(p->level)) continue;
    auto stored = c.stored_families.find(p->page_id);
    if (!p->children.empty()) {
      c.family_ids.insert(p->page_id);
      c.family_ids.insert(p->children.begin(), p->children.end());
      if (stored == c.stored_families.end()) continue;
      auto fresh_kids = std::make_shared<PlanList>();
      for (const auto& child_id : p->children) {
        auto found = fresh_by_page.find(child_id);
        if (found != fresh_by_page.end()) fresh_kids->push_back(found->second);
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

  // Whether a stored row keeps its identity as a pinned page; the first rule
  // that applies decides. Evaluated once per row, in stored order, so its
  // amendments come in that order.
  auto _pinnable = [&](const std::string& pid, const Json& row) {
    if (!is_pinned_level(row_level(row))) return false;
    if (auto found = superseded_kids.find(pid); found != superseded_kids.end()) {
      amendments.push_back(carry_superseded(remap, pid, row, *found->second.family_plans,
                                            live_paths, std::string(found->second.reason)));
      return false;
    }
    if (c.family_ids.count(pid) != 0) return false;
    if (is_custom(pid)) return false;
    // A collapsed family parent stays as an undivided page though its row,
    // a synthesis page's, has no files.
    if (c.collapsed.count(pid) != 0) return true;
    if (c.stored_families.find(pid) != c.stored_families.end()) return false;
    const Json* files = find_value(row, "source_files");
    if (files == nullptr || is_empty(*files)) {
      amendments.push_back(amend("retire", pid, "decomposition changed; empty parent"));
      return false;
    }
    return true;
  };
  for (const auto& [pid, row] : existing) {
    if (_pinnable(pid, row)) c.pinned_existing.emplace(pid, &row);
  }

  std::unordered_set<std::string> fresh_ids;
  fresh_ids.reserve(fresh_plans.size());
  for (const auto& plan : fresh_plans) {
    fresh_ids.insert(plan->page_id);
    if (is_pinned_level(plan->level) && c.family_ids.count(plan->page_id) == 0 &&
        !is_custom(plan->page_id)) {
      c.fresh_modules.push_back(plan);
    } else {
      c.passthrough.push_back(plan);
    }
  }

  for (const auto& [pid, row] : existing) {
    if (is_custom(pid) && fresh_ids.count(pid) == 0) {
      amendments.push_back(amend("retire", pid, "removed from steering"));
    }
  }
  for (const auto& plan : c.passthrough) {
    if (existing.find(plan->page_id) == existing.end()) {
      amendments.push_back(
          amend("add", plan->page_id, "new " + plan->level + " page", plan->level));
    }
  }
  // Note pages are the author's; they are never retired for not being planned.
  for (const auto& [pid, row] : existing) {
    const std::string level = row_level(row);
    if (is_pinned_level(level) || level == NOTE_LEVEL) continue;
    if (fresh_ids.count(pid) == 0) {
      amendments.push_back(amend("retire", pid, level + " page no longer planned", level));
    }
  }

  if (!replan && !c.pinned_existing.empty()) {
    result.plans = assemble_pinned(c, existing, live_paths, amendments);
    return result;
  }

  if (replan && !c.pinned_existing.empty()) {
    PlanList fresh_code_plans;
    for (const auto& plan : fresh_plans) {
      if (is_pinned_level(plan->level) && !plan->source_files.empty() &&
          !is_custom(plan->page_id)) {
        fresh_code_plans.push_back(plan);
      }
    }
    inherit_prose(remap, c.pinned_existing, fresh_code_plans, live_paths, fresh_ids, amendments);
  }
  // No importance order here: a first plan or a replan keeps the planner's.
  result.plans = link_families(keep_agent_titles(fresh_plans, existing));
  return result;
}

}  // namespace zenthar_kodrune::workers::wiki

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
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "row_facts.hpp"
#include "zenthar_kodrune/workers/wiki/page_ids.hpp"
#include "zenthar_kodrune/workers/wiki/page_sources.hpp"
#include "zenthar_kodrune/workers/wiki/page_title.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/replan_carry.hpp"
#include "zenthar_kodrune/workers/wiki_types.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

// Ids as views of plans and rows that outlive the call.
using IdSet = IdViews;
using StoredFamilies = tsl::ordered_map<std::string, std::vector<std::string>>;

std::string row_level(const Json& row) { return row_text(row, "level", "module"); }

// A stored child to retire, and the fresh plans its prose may go to. Every
// superseded child of one family shares that family's plan list.
struct Superseded {
  std::string_view reason;
  std::shared_ptr<const PlanList> family_plans;
};

// A stored row that keeps its identity as a pinned page.
struct PinnedRow {
  const std::string* page_id;
  const Json* row;
  const RowFacts* facts;
  std::size_t index;  // in the stored order
};

// What the classification hands on to the pinning-mode assembly.
struct Classified {
  StoredFamilies stored_families;
  IdSet family_ids;
  IdSet collapsed;
  std::vector<PinnedRow> pinned_existing;
  PlanList fresh_modules;
  PlanList passthrough;
};

// The stored decomposed families, from the store's own record: a code-unit
// row whose "related_pages" name stored pages is a family parent, whatever
// its own files. Each row's level is kept in `levels`, in stored order, for
// the later passes: read once here, a bad one fails here as it always has.
StoredFamilies stored_families_of(const Existing& existing, const std::vector<RowFacts>& facts,
                                  std::vector<std::string_view>& levels) {
  StoredFamilies families;
  levels.reserve(existing.size());
  std::size_t i = 0;
  for (const auto& [page_id, row] : existing) {
    const RowFacts& row_facts = facts[i++];
    levels.push_back(row_level(row, row_facts));
    if (!row_facts.pinned_level || is_custom_id(page_id)) continue;
    const Json* related = row_text_list_in_place(row, row_facts.related_pages, "related_pages");
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

// Where a live path stands while the pinning mode hands out files.
enum class PathState : std::uint8_t {
  kNew,       // no kept page covers it (yet)
  kCovered,   // a kept page documents it
  kClaimed,   // new, and an admitted or extended page took it
  kCatchAll,  // the catch-all page documents it
};

// Every live path once, in one flat table: covered, new and catch-all files
// are states of an entry rather than sets of copied strings. The keys view
// the caller's `live_paths`, which outlives the call.
using LiveIndex = tsl::ordered_map<std::string_view, PathState, std::hash<std::string_view>,
                                   std::equal_to<std::string_view>,
                                   std::allocator<std::pair<std::string_view, PathState>>,
                                   std::vector<std::pair<std::string_view, PathState>>>;

// The row's page id when _plan_from_row would build a plan from it; raises
// what _plan_from_row raises, in the order it reads the keys. A pinned row
// whose id the planner still plans is not rebuilt, but a bad row must fail
// the same way either way.
const std::string& checked_row_page_id(const Json& row, const RowFacts& facts) {
  row_text_list_in_place(row, facts.source_files, "source_files");
  check_text(row, facts.title, "title");
  const std::string& id = row_page_id_ref(row, facts.page_id);
  row_level(row, facts);
  check_text(row, facts.importance, "importance");
  check_text(row, facts.description, "description");
  check_text(row, facts.page_type, "page_type");
  return id;
}

// What the assembly knows of one page id: the last fresh code-unit plan of
// that id (catch-all plans aside), as a position in `fresh_modules`; the
// first plan of `plans` with it; whether a page of it is kept. One entry per
// id, so a pinned row's id is hashed once for all three.
struct IdState {
  static constexpr std::size_t kNoPlan = static_cast<std::size_t>(-1);
  std::size_t fresh_module = kNoPlan;
  PagePlan* first_in_plans = nullptr;
  bool kept = false;
};
using IdTable = tsl::ordered_map<std::string_view, IdState, std::hash<std::string_view>,
                                 std::equal_to<std::string_view>,
                                 std::allocator<std::pair<std::string_view, IdState>>,
                                 std::vector<std::pair<std::string_view, IdState>>>;

constexpr std::size_t kNoRow = static_cast<std::size_t>(-1);

// The pinning mode: stored identities are kept, stored families rebuilt or
// retired, new files given to fresh pages or the catch-all page, and the
// plans put in build order.
PlanList assemble_pinned(const Classified& c, const Existing& existing,
                         const std::vector<RowFacts>& facts, const PathSet& live_paths,
                         Amendments& amendments) {
  LiveIndex live;
  live.reserve(live_paths.size());
  for (const auto& path : live_paths) live.emplace(path, PathState::kNew);
  // A page's paths are hashed first and looked up after: the lookups, each a
  // few misses in a table far larger than the cache, then overlap.
  std::vector<std::size_t> hashes;
  auto cover = [&](const std::vector<std::string>& files) {
    hashes.clear();
    for (const auto& path : files) hashes.push_back(std::hash<std::string_view>{}(path));
    for (std::size_t i = 0; i < files.size(); ++i) {
      auto found = live.find(files[i], hashes[i]);
      if (found != live.end() && found.value() == PathState::kNew) {
        found.value() = PathState::kCovered;
      }
    }
  };

  PlanList plans = c.passthrough;
  plans.reserve(c.passthrough.size() + c.pinned_existing.size() + c.stored_families.size() + 1);
  // The stored row of each plan of `plans` where the plan came from the row
  // of its own id, so the titles need not look it up; else kNoRow.
  std::vector<std::size_t> plan_rows(plans.size(), kNoRow);
  plan_rows.reserve(plans.capacity());
  // Ids view plans and rows that outlive the call.
  IdTable ids;
  ids.reserve(c.fresh_modules.size() + plans.capacity());
  for (std::size_t i = 0; i < c.fresh_modules.size(); ++i) {
    if (!c.fresh_modules[i]->catch_all) ids[c.fresh_modules[i]->page_id].fresh_module = i;
  }
  // `plans` keeps the first plan of each id findable as it grows, so an
  // extension finds its page without a scan.
  auto note_in_plans = [](IdState& state, const PlanPtr& plan) {
    if (state.first_in_plans == nullptr) state.first_in_plans = plan.get();
  };
  auto add_plan = [&](const PlanPtr& plan, std::size_t row = kNoRow) {
    plans.push_back(plan);
    plan_rows.push_back(row);
    note_in_plans(ids[plan->page_id], plan);
  };
  for (const auto& plan : plans) {
    note_in_plans(ids[plan->page_id], plan);
    cover(plan->source_files);
  }
  auto is_kept = [&](std::string_view page_id) {
    auto found = ids.find(page_id);
    return found != ids.end() && found->second.kept;
  };
  const Json* catch_all_row = nullptr;
  // The fresh plans that became a kept page's content, by position.
  std::vector<bool> kept_as_content(c.fresh_modules.size(), false);

  for (const auto& [pid_ref, row, row_facts, row_index] : c.pinned_existing) {
    const std::string& pid = *pid_ref;
    auto pid_entry = ids.find(pid);
    const std::size_t fresh_same =
        pid_entry != ids.end() ? pid_entry->second.fresh_module : IdState::kNoPlan;
    PlanPtr plan;
    bool catch_all = false;
    if (fresh_same != IdState::kNoPlan) {
      // The planner's plan of that id supplies the content, so the stored
      // one is only checked and tested for the catch-all id, not rebuilt.
      catch_all = is_catch_all_id(checked_row_page_id(*row, *row_facts));
    } else {
      plan = plan_from_row(*row, *row_facts, live_paths);
      catch_all = plan->catch_all;
    }
    if (catch_all) {
      // Only the last stored catch-all page is carried on; an earlier one is
      // neither kept nor retired.
      catch_all_row = row;
      continue;
    }
    if (fresh_same == IdState::kNoPlan && plan->source_files.empty()) {
      amendments.push_back(amend("retire", pid, "all source files gone"));
      continue;
    }
    // The page keeps its id; the planner's plan of that id supplies content.
    if (fresh_same != IdState::kNoPlan) {
      plan = c.fresh_modules[fresh_same];
      kept_as_content[fresh_same] = true;
      // The plan has the row's id: its entry is the one found.
      plans.push_back(plan);
      plan_rows.push_back(row_index);
      note_in_plans(pid_entry.value(), plan);
      pid_entry.value().kept = true;
    } else {
      // A row's plan takes the id the row names, not always its key.
      add_plan(plan, plan->page_id == pid ? row_index : kNoRow);
      ids[pid].kept = true;
    }
    cover(plan->source_files);
  }

  for (const auto& [parent_id, kids] : c.stored_families) {
    if (c.family_ids.count(parent_id) != 0 || c.collapsed.count(parent_id) != 0) continue;
    std::vector<std::string> surviving;
    for (const auto& kid : kids) {
      if (is_kept(kid)) surviving.push_back(kid);
    }
    if (surviving.empty()) {
      amendments.push_back(amend("retire", parent_id, "all decomposed children retired"));
      continue;
    }
    add_plan(rebuilt_family_parent(parent_id, existing.at(parent_id), surviving, existing));
    ids[parent_id].kept = true;
  }

  // The stored catch-all page keeps its live files, even those a kept page
  // lists too.
  if (catch_all_row != nullptr) {
    for (const auto& path : row_text_list(*catch_all_row, "source_files")) {
      auto found = live.find(path);
      if (found != live.end()) found.value() = PathState::kCatchAll;
    }
  }

  std::size_t new_count = 0;
  for (const auto& [path, state] : live) new_count += state == PathState::kNew ? 1 : 0;

  // New files go to the first fresh code-unit plan listing them: a plan with
  // enough of them becomes (or extends) a page, a lone file goes to the
  // catch-all page. Fresh plans that claim nothing are dropped.
  std::vector<LiveIndex::iterator> own_new;
  for (std::size_t i = 0; i < c.fresh_modules.size(); ++i) {
    if (new_count == 0) break;
    // A plan kept as a page's content had all its files covered then, and an
    // extension only gives it files claimed at once: it holds no new file.
    if (kept_as_content[i]) continue;
    const PlanPtr& plan = c.fresh_modules[i];
    own_new.clear();
    for (const auto& path : plan->source_files) {
      auto found = live.find(path);
      if (found != live.end() && found->second == PathState::kNew) own_new.push_back(found);
    }
    if (own_new.empty()) continue;
    std::sort(own_new.begin(), own_new.end(),
              [](const auto& a, const auto& b) { return a->first < b->first; });
    own_new.erase(std::unique(own_new.begin(), own_new.end()), own_new.end());

    PathState taken = PathState::kCatchAll;
    if (own_new.size() >= _MIN_NEW_PAGE_FILES && !plan->catch_all) {
      taken = PathState::kClaimed;
      std::vector<std::string> files;
      files.reserve(own_new.size());
      for (const auto& entry : own_new) files.emplace_back(entry->first);
      const std::string count = std::to_string(files.size());
      if (is_kept(plan->page_id)) {
        if (PagePlan* page = ids.at(plan->page_id).first_in_plans) {
          page->source_files = sorted_union(page->source_files, files);
        }
        amendments.push_back(
            amend("extend", plan->page_id, count + " new source file(s) absorbed"));
      } else {
        // The new page keeps only the files no kept page holds.
        plan->source_files = std::move(files);
        add_plan(plan);
        ids[plan->page_id].kept = true;
        amendments.push_back(amend("add", plan->page_id, "new subsystem (" + count + " files)"));
      }
    }
    for (auto& entry : own_new) entry.value() = taken;
    new_count -= own_new.size();
  }

  std::vector<std::string> catch_all_files;
  for (const auto& [path, state] : live) {
    if (state == PathState::kNew || state == PathState::kCatchAll)
      catch_all_files.emplace_back(path);
  }
  if (!catch_all_files.empty()) {
    add_plan(catch_all_row == nullptr
                 ? catch_all_page(std::move(catch_all_files))
                 : catch_all_page(std::move(catch_all_files), row_page_id(*catch_all_row),
                                  row_text(*catch_all_row, "title", CATCH_ALL_TITLE)));
  } else if (catch_all_row != nullptr) {
    amendments.push_back(
        amend("retire", row_page_id(*catch_all_row), "catch-all has no remaining files"));
  }

  // The titles as keep_agent_titles keeps them, in build order, so a bad
  // stored title fails where it always has.
  PlanList ordered;
  ordered.reserve(plans.size());
  for (std::size_t i : importance_order(plans)) {
    PagePlan& plan = *plans[i];
    ordered.push_back(plans[i]);
    std::size_t row = plan_rows[i];
    if (row == kNoRow) {
      auto found = existing.find(plan.page_id);
      if (found == existing.end()) continue;
      row = static_cast<std::size_t>(found - existing.begin());
    }
    keep_agent_title(plan, existing.values_container()[row].second, facts[row]);
  }
  return link_families(std::move(ordered));
}

}  // namespace

PinResult pin_plan(const PlanList& fresh_plans_in, const Existing& existing,
                   const PathSet& live_paths, bool replan) {
  PinResult result;
  Amendments& amendments = result.amendments;
  ReplanRemap& remap = result.remap;
  Classified c;
  const std::vector<RowFacts> facts = row_facts(existing);

  // A replan adopts fresh families, so only pinning demotes them.
  PlanList demoted;
  if (!replan) demoted = demote_unrecorded_families(fresh_plans_in, existing, facts);
  const PlanList& fresh_plans = replan ? fresh_plans_in : demoted;

  std::vector<std::string_view> levels;
  c.stored_families = stored_families_of(existing, facts, levels);

  IdViews fresh_ids;
  fresh_ids.reserve(fresh_plans.size());
  for (const auto& plan : fresh_plans) fresh_ids.insert(plan->page_id);

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

  // Whether a stored row keeps its identity as a pinned page; the first rule
  // that applies decides. Evaluated once per row, in stored order, so its
  // amendments come in that order. The id is hashed once for all its tests.
  auto _pinnable = [&](const std::string& pid, const Json& row, const RowFacts& row_facts) {
    if (!row_facts.pinned_level) return false;
    const std::size_t hash = std::hash<std::string_view>{}(pid);
    if (auto found = superseded_kids.find(pid, hash); found != superseded_kids.end()) {
      amendments.push_back(carry_superseded(remap, pid, row, *found->second.family_plans,
                                            live_paths, std::string(found->second.reason)));
      return false;
    }
    if (c.family_ids.count(pid, hash) != 0) return false;
    if (is_custom_id(pid)) return false;
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
    if (is_custom_id(pid) && fresh_ids.count(pid) == 0) {
      unsteered.push_back(amend("retire", pid, "removed from steering"));
    }
    if (!facts[i].pinned_level && level != NOTE_LEVEL && fresh_ids.count(pid) == 0) {
      unplanned.push_back(
          amend("retire", pid, std::string(level) + " page no longer planned", level));
    }
  }

  for (const auto& plan : fresh_plans) {
    if (is_pinned_level(plan->level) && c.family_ids.count(plan->page_id) == 0 &&
        !is_custom_id(plan->page_id)) {
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

  if (!replan && !c.pinned_existing.empty()) {
    result.plans = assemble_pinned(c, existing, facts, live_paths, amendments);
    return result;
  }

  if (replan && !c.pinned_existing.empty()) {
    PlanList fresh_code_plans;
    for (const auto& plan : fresh_plans) {
      if (is_pinned_level(plan->level) && !plan->source_files.empty() &&
          !is_custom_id(plan->page_id)) {
        fresh_code_plans.push_back(plan);
      }
    }
    RowRefs pinned_rows;
    pinned_rows.reserve(c.pinned_existing.size());
    for (const auto& pinned : c.pinned_existing)
      pinned_rows.emplace_back(*pinned.page_id, pinned.row);
    inherit_prose(remap, pinned_rows, fresh_code_plans, live_paths, fresh_ids, amendments);
  }
  // No importance order here: a first plan or a replan keeps the planner's.
  result.plans = link_families(keep_agent_titles(fresh_plans, existing, facts));
  return result;
}

}  // namespace zenthar_kodrune::workers::wiki

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
#include <cstdlib>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "row_facts.hpp"
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

// A stored row that keeps its identity as a pinned page.
struct PinnedRow {
  const std::string* page_id;
  const Json* row;
  const RowFacts* facts;
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
    levels.push_back(row_text_view(row, row_facts.level, "level", "module"));
    if (!is_pinned_level(levels.back()) || is_custom(page_id)) continue;
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

PlanPtr catch_all_page(const Json* catch_all_row, std::vector<std::string> sorted) {
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
  row_text_view(row, facts.title, "title");
  const std::string& id = row_page_id_ref(row, facts.page_id);
  row_text_view(row, facts.level, "level");
  row_text_view(row, facts.importance, "importance");
  row_text_view(row, facts.description, "description");
  row_text_view(row, facts.page_type, "page_type");
  return id;
}

bool is_catch_all_id(std::string_view page_id) {
  // The prefix test spares a regex match for nearly every id.
  return page_id.starts_with(kCatchAllId) && _CATCH_ALL_RE.full_match(page_id);
}

// The pinning mode: stored identities are kept, stored families rebuilt or
// retired, new files given to fresh pages or the catch-all page, and the
// plans put in build order.
PlanList assemble_pinned(const Classified& c, const Existing& existing,
                         const std::vector<RowFacts>& facts, const PathSet& live_paths,
                         Amendments& amendments) {
  LiveIndex live;
  live.reserve(live_paths.size());
  for (const auto& path : live_paths) live.emplace(path, PathState::kNew);
  auto cover = [&](const std::vector<std::string>& files) {
    for (const auto& path : files) {
      auto found = live.find(path);
      if (found != live.end() && found.value() == PathState::kNew) {
        found.value() = PathState::kCovered;
      }
    }
  };

  PlanList plans = c.passthrough;
  plans.reserve(c.passthrough.size() + c.pinned_existing.size() + c.stored_families.size() + 1);
  // The first plan of `plans` with a given id, kept as `plans` grows, so an
  // extension finds its page without a scan. Ids view plans `plans` holds.
  std::unordered_map<std::string_view, PagePlan*> first_in_plans;
  first_in_plans.reserve(plans.capacity());
  auto add_plan = [&](const PlanPtr& plan) {
    plans.push_back(plan);
    first_in_plans.try_emplace(plan->page_id, plan.get());
  };
  for (const auto& plan : plans) {
    first_in_plans.try_emplace(plan->page_id, plan.get());
    cover(plan->source_files);
  }
  std::unordered_set<std::string_view> kept_ids;
  kept_ids.reserve(plans.capacity());
  const Json* catch_all_row = nullptr;
  // Fresh code-unit plans by id, as positions in `fresh_modules`.
  std::unordered_map<std::string_view, std::size_t> fresh_by_id;
  fresh_by_id.reserve(c.fresh_modules.size());
  for (std::size_t i = 0; i < c.fresh_modules.size(); ++i) {
    if (!c.fresh_modules[i]->catch_all) fresh_by_id.insert_or_assign(c.fresh_modules[i]->page_id, i);
  }
  // The fresh plans that became a kept page's content, by position.
  std::vector<bool> kept_as_content(c.fresh_modules.size(), false);

  for (const auto& [pid_ref, row, facts] : c.pinned_existing) {
    const std::string& pid = *pid_ref;
    auto fresh_same = fresh_by_id.find(pid);
    PlanPtr plan;
    bool catch_all = false;
    if (fresh_same != fresh_by_id.end()) {
      // The planner's plan of that id supplies the content, so the stored
      // one is only checked and tested for the catch-all id, not rebuilt.
      catch_all = is_catch_all_id(checked_row_page_id(*row, *facts));
    } else {
      plan = plan_from_row(*row, *facts, live_paths);
      catch_all = plan->catch_all;
    }
    if (catch_all) {
      // Only the last stored catch-all page is carried on; an earlier one is
      // neither kept nor retired.
      catch_all_row = row;
      continue;
    }
    if (fresh_same == fresh_by_id.end() && plan->source_files.empty()) {
      amendments.push_back(amend("retire", pid, "all source files gone"));
      continue;
    }
    // The page keeps its id; the planner's plan of that id supplies content.
    if (fresh_same != fresh_by_id.end()) {
      plan = c.fresh_modules[fresh_same->second];
      kept_as_content[fresh_same->second] = true;
    }
    add_plan(plan);
    kept_ids.insert(pid);
    cover(plan->source_files);
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
      if (kept_ids.count(plan->page_id) != 0) {
        auto found = first_in_plans.find(plan->page_id);
        if (found != first_in_plans.end()) {
          found->second->source_files = sorted_union(found->second->source_files, files);
        }
        amendments.push_back(
            amend("extend", plan->page_id, count + " new source file(s) absorbed"));
      } else {
        // The new page keeps only the files no kept page holds.
        plan->source_files = std::move(files);
        add_plan(plan);
        kept_ids.insert(plan->page_id);
        amendments.push_back(amend("add", plan->page_id, "new subsystem (" + count + " files)"));
      }
    }
    for (auto& entry : own_new) entry.value() = taken;
    new_count -= own_new.size();
  }

  std::vector<std::string> catch_all_files;
  for (const auto& [path, state] : live) {
    if (state == PathState::kNew || state == PathState::kCatchAll) catch_all_files.emplace_back(path);
  }
  if (!catch_all_files.empty()) {
    add_plan(catch_all_page(catch_all_row, std::move(catch_all_files)));
  } else if (catch_all_row != nullptr) {
    amendments.push_back(
        amend("retire", row_page_id(*catch_all_row), "catch-all has no remaining files"));
  }

  return link_families(keep_agent_titles(_by_importance(plans), existing, facts));
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
  auto _pinnable = [&](const std::string& pid, const Json& row, const RowFacts& row_facts,
                       std::string_view level) {
    if (!is_pinned_level(level)) return false;
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
    const Json* files = row_facts.source_files;
    if (files == nullptr || is_empty(*files)) {
      amendments.push_back(amend("retire", pid, "decomposition changed; empty parent"));
      return false;
    }
    return true;
  };
  std::size_t row_index = 0;
  for (const auto& [pid, row] : existing) {
    const std::size_t i = row_index++;
    if (_pinnable(pid, row, facts[i], levels[i])) c.pinned_existing.push_back({&pid, &row, &facts[i]});
  }

  std::unordered_set<std::string_view> fresh_ids;
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
  row_index = 0;
  for (const auto& [pid, row] : existing) {
    const std::string_view level = levels[row_index++];
    if (is_pinned_level(level) || level == NOTE_LEVEL) continue;
    if (fresh_ids.count(pid) == 0) {
      amendments.push_back(
          amend("retire", pid, std::string(level) + " page no longer planned", level));
    }
  }

  if (!replan && !c.pinned_existing.empty()) {
    result.plans = assemble_pinned(c, existing, facts, live_paths, amendments);
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
    std::unordered_set<std::string> fresh_id_texts;
    fresh_id_texts.reserve(fresh_ids.size());
    for (std::string_view id : fresh_ids) fresh_id_texts.emplace(id);
    RowRefs pinned_rows;
    pinned_rows.reserve(c.pinned_existing.size());
    for (const auto& pinned : c.pinned_existing) pinned_rows.emplace(*pinned.page_id, pinned.row);
    inherit_prose(remap, pinned_rows, fresh_code_plans, live_paths, fresh_id_texts, amendments);
  }
  // No importance order here: a first plan or a replan keeps the planner's.
  result.plans = link_families(keep_agent_titles(fresh_plans, existing, facts));
  return result;
}

}  // namespace zenthar_kodrune::workers::wiki

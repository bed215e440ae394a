// The pinning mode of pin_plan, as named passes over one build's state:
//   keep_pinned_rows        stored pages keep their ids; the planner's plan of
//                           the same id supplies their content;
//   rebuild_stored_families stored family parents the planner no longer
//                           proposes are rebuilt over their kept children;
//   keep_catch_all_files    the stored catch-all page keeps its live files;
//   hand_out_new_files      new files go to fresh pages or to the catch-all;
//   place_catch_all         the catch-all page is made, kept or retired;
//   ordered_with_titles     build order, with the agents' titles kept.
// Every live path is one entry of a flat table whose state the passes move
// on, rather than a member of several sets of copied strings.
#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/model/page_sources.hpp"
#include "workers/wiki/plan_record/page_title.hpp"
#include "workers/wiki/plan_record/pinning.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

std::string stored_level(const Json& row) { return row_text(row, "level", "module"); }

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
  plan.level = stored_level(row);
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
  plan.topic = model::unit_topic(plan.title, kid_files);
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

// Where a path is not among the live paths.
constexpr std::size_t kNotLive = static_cast<std::size_t>(-1);

// The row's page id when _plan_from_row would build a plan from it; raises
// what _plan_from_row raises, in the order it reads the keys. A pinned row
// whose id the planner still plans is not rebuilt, but a bad row must fail
// the same way either way.
const std::string& checked_row_page_id(const Json& row, const plan_record::RowFacts& facts) {
  plan_record::row_text_list_in_place(row, facts.source_files, "source_files");
  plan_record::check_text(row, facts.title, "title");
  const std::string& id = plan_record::row_page_id_ref(row, facts.page_id);
  plan_record::row_level(row, facts);
  plan_record::check_text(row, facts.importance, "importance");
  plan_record::check_text(row, facts.description, "description");
  plan_record::check_text(row, facts.page_type, "page_type");
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

class PinnedAssembly {
 public:
  PinnedAssembly(const plan_record::Classified& c, const Existing& existing,
                 const std::vector<plan_record::RowFacts>& facts, const PathSet& live_paths,
                 Amendments& amendments)
      : c_(c),
        existing_(existing),
        facts_(facts),
        live_paths_(live_paths),
        amendments_(amendments) {
    states_.assign(live_paths.size(), PathState::kNew);
    plans_ = c.passthrough;
    plans_.reserve(c.passthrough.size() + c.pinned_existing.size() + c.stored_families.size() + 1);
    plan_rows_.assign(plans_.size(), kNoRow);
    plan_rows_.reserve(plans_.capacity());
    ids_.reserve(c.fresh_modules.size() + plans_.capacity());
    for (std::size_t i = 0; i < c.fresh_modules.size(); ++i) {
      if (!c.fresh_modules[i]->catch_all) ids_[c.fresh_modules[i]->page_id].fresh_module = i;
    }
    for (const auto& plan : plans_) {
      note_in_plans(ids_[plan->page_id], plan);
      cover(plan->source_files);
    }
    kept_as_content_.assign(c.fresh_modules.size(), false);
  }

  PlanList run() {
    keep_pinned_rows();
    rebuild_stored_families();
    keep_catch_all_files();
    hand_out_new_files();
    place_catch_all();
    return ordered_with_titles();
  }

 private:
  // A page's paths are hashed first and looked up after: the lookups, each a
  // few misses in a table far larger than the cache, then overlap.
  void cover(const std::vector<std::string>& files) {
    hashes_.clear();
    for (const auto& path : files) hashes_.push_back(PathHash{}(path));
    for (std::size_t i = 0; i < files.size(); ++i) {
      const std::size_t at = live_index(files[i], hashes_[i]);
      if (at != kNotLive && states_[at] == PathState::kNew) states_[at] = PathState::kCovered;
    }
  }

  // The position of `path` among the live paths, or kNotLive.
  std::size_t live_index(std::string_view path, std::size_t hash) const {
    const auto found = live_paths_.find(path, hash);
    return found == live_paths_.end() ? kNotLive
                                      : static_cast<std::size_t>(found - live_paths_.begin());
  }
  std::size_t live_index(std::string_view path) const { return live_index(path, PathHash{}(path)); }

  // `plans_` keeps the first plan of each id findable as it grows, so an
  // extension finds its page without a scan.
  static void note_in_plans(IdState& state, const PlanPtr& plan) {
    if (state.first_in_plans == nullptr) state.first_in_plans = plan.get();
  }

  void add_plan(const PlanPtr& plan, std::size_t row = kNoRow) {
    plans_.push_back(plan);
    plan_rows_.push_back(row);
    note_in_plans(ids_[plan->page_id], plan);
  }

  bool is_kept(std::string_view page_id) const {
    auto found = ids_.find(page_id);
    return found != ids_.end() && found->second.kept;
  }

  void keep_pinned_rows() {
    for (const auto& [pid_ref, row, row_facts, row_index] : c_.pinned_existing) {
      const std::string& pid = *pid_ref;
      auto pid_entry = ids_.find(pid);
      const std::size_t fresh_same =
          pid_entry != ids_.end() ? pid_entry->second.fresh_module : IdState::kNoPlan;
      PlanPtr plan;
      bool catch_all = false;
      if (fresh_same != IdState::kNoPlan) {
        // The planner's plan of that id supplies the content, so the stored
        // one is only checked and tested for the catch-all id, not rebuilt.
        catch_all = is_catch_all_id(checked_row_page_id(*row, *row_facts));
      } else {
        plan = plan_record::plan_from_row(*row, *row_facts, live_paths_);
        catch_all = plan->catch_all;
      }
      if (catch_all) {
        // Only the last stored catch-all page is carried on; an earlier one is
        // neither kept nor retired.
        catch_all_row_ = row;
        continue;
      }
      if (fresh_same == IdState::kNoPlan && plan->source_files.empty()) {
        amendments_.push_back(amend("retire", pid, "all source files gone"));
        continue;
      }
      if (fresh_same != IdState::kNoPlan) {
        plan = c_.fresh_modules[fresh_same];
        kept_as_content_[fresh_same] = true;
        // The plan has the row's id: its entry is the one found.
        plans_.push_back(plan);
        plan_rows_.push_back(row_index);
        note_in_plans(pid_entry.value(), plan);
        pid_entry.value().kept = true;
      } else {
        // A row's plan takes the id the row names, not always its key.
        add_plan(plan, plan->page_id == pid ? row_index : kNoRow);
        ids_[pid].kept = true;
      }
      cover(plan->source_files);
    }
  }

  void rebuild_stored_families() {
    for (const auto& [parent_id, kids] : c_.stored_families) {
      if (c_.family_ids.count(parent_id) != 0 || c_.collapsed.count(parent_id) != 0) continue;
      std::vector<std::string> surviving;
      for (const auto& kid : kids) {
        if (is_kept(kid)) surviving.push_back(kid);
      }
      if (surviving.empty()) {
        amendments_.push_back(amend("retire", parent_id, "all decomposed children retired"));
        continue;
      }
      add_plan(rebuilt_family_parent(parent_id, existing_.at(parent_id), surviving, existing_));
      ids_[parent_id].kept = true;
    }
  }

  // The stored catch-all page keeps its live files, even those a kept page
  // lists too.
  void keep_catch_all_files() {
    if (catch_all_row_ == nullptr) return;
    for (const auto& path : row_text_list(*catch_all_row_, "source_files")) {
      const std::size_t at = live_index(path);
      if (at != kNotLive) states_[at] = PathState::kCatchAll;
    }
  }

  // New files go to the first fresh code-unit plan listing them: a plan with
  // enough of them becomes (or extends) a page, a lone file goes to the
  // catch-all page. Fresh plans that claim nothing are dropped.
  void hand_out_new_files() {
    std::size_t new_count = 0;
    for (const PathState state : states_) new_count += state == PathState::kNew ? 1 : 0;
    std::vector<std::size_t> own_new;  // positions among the live paths
    for (std::size_t i = 0; i < c_.fresh_modules.size(); ++i) {
      if (new_count == 0) break;
      // A plan kept as a page's content had all its files covered then, and
      // an extension only gives it files claimed at once: it holds no new file.
      if (kept_as_content_[i]) continue;
      const PlanPtr& plan = c_.fresh_modules[i];
      own_new.clear();
      for (const auto& path : plan->source_files) {
        const std::size_t at = live_index(path);
        if (at != kNotLive && states_[at] == PathState::kNew) own_new.push_back(at);
      }
      if (own_new.empty()) continue;
      const auto& live = live_paths_.values_container();
      std::sort(own_new.begin(), own_new.end(),
                [&](std::size_t a, std::size_t b) { return live[a] < live[b]; });
      own_new.erase(std::unique(own_new.begin(), own_new.end()), own_new.end());

      PathState taken = PathState::kCatchAll;
      if (own_new.size() >= _MIN_NEW_PAGE_FILES && !plan->catch_all) {
        taken = PathState::kClaimed;
        admit(plan, own_new);
      }
      for (const std::size_t at : own_new) states_[at] = taken;
      new_count -= own_new.size();
    }
  }

  // A fresh plan with enough new files: it extends the kept page of its id,
  // or becomes a page holding only the files no kept page holds.
  void admit(const PlanPtr& plan, const std::vector<std::size_t>& own_new) {
    std::vector<std::string> files;
    files.reserve(own_new.size());
    for (const std::size_t at : own_new) files.push_back(live_paths_.values_container()[at]);
    const std::string count = std::to_string(files.size());
    if (is_kept(plan->page_id)) {
      if (PagePlan* page = ids_.at(plan->page_id).first_in_plans) {
        page->source_files = sorted_union(page->source_files, files);
      }
      amendments_.push_back(amend("extend", plan->page_id, count + " new source file(s) absorbed"));
    } else {
      plan->source_files = std::move(files);
      add_plan(plan);
      ids_[plan->page_id].kept = true;
      amendments_.push_back(amend("add", plan->page_id, "new subsystem (" + count + " files)"));
    }
  }

  void place_catch_all() {
    std::vector<std::string> catch_all_files;
    const auto& live = live_paths_.values_container();
    for (std::size_t at = 0; at < live.size(); ++at) {
      if (states_[at] == PathState::kNew || states_[at] == PathState::kCatchAll)
        catch_all_files.push_back(live[at]);
    }
    if (!catch_all_files.empty()) {
      add_plan(
          catch_all_row_ == nullptr
              ? model::catch_all_page(std::move(catch_all_files))
              : model::catch_all_page(std::move(catch_all_files), row_page_id(*catch_all_row_),
                                      row_text(*catch_all_row_, "title", model::CATCH_ALL_TITLE)));
    } else if (catch_all_row_ != nullptr) {
      amendments_.push_back(
          amend("retire", row_page_id(*catch_all_row_), "catch-all has no remaining files"));
    }
  }

  // The titles are kept in build order, so that of two bad stored titles the
  // one built first is the one reported.
  PlanList ordered_with_titles() {
    PlanList ordered;
    ordered.reserve(plans_.size());
    for (std::size_t i : plan_record::importance_order(plans_)) {
      PagePlan& plan = *plans_[i];
      ordered.push_back(plans_[i]);
      std::size_t row = plan_rows_[i];
      if (row == kNoRow) {
        auto found = existing_.find(plan.page_id);
        if (found == existing_.end()) continue;
        row = static_cast<std::size_t>(found - existing_.begin());
      }
      plan_record::keep_agent_title(plan, existing_.values_container()[row].second, facts_[row]);
    }
    return link_families(std::move(ordered));
  }

  const plan_record::Classified& c_;
  const Existing& existing_;
  const std::vector<plan_record::RowFacts>& facts_;
  const PathSet& live_paths_;
  Amendments& amendments_;

  std::vector<PathState> states_;  // by position among the live paths
  std::vector<std::size_t> hashes_;
  PlanList plans_;
  // The stored row of each plan of `plans_` where the plan came from the row
  // of its own id, so the titles need not look it up; else kNoRow.
  std::vector<std::size_t> plan_rows_;
  IdTable ids_;
  const Json* catch_all_row_ = nullptr;
  // The fresh plans that became a kept page's content, by position.
  std::vector<bool> kept_as_content_;
};

}  // namespace

PlanList plan_record::assemble_pinned(const plan_record::Classified& classified,
                                      const Existing& existing,
                                      const std::vector<plan_record::RowFacts>& facts,
                                      const PathSet& live_paths, Amendments& amendments) {
  return PinnedAssembly(classified, existing, facts, live_paths, amendments).run();
}

}  // namespace zenthar_kodrune::workers::wiki

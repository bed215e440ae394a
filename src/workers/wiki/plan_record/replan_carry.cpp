// Replan carry: amendment records, and where the prose of a page that goes
// away is carried.
//
// Prose follows files: an old page's prose goes to the fresh page that now
// holds most of its still-live files. Each distinct path counts once, on both
// sides, so a list that names a file twice does not win a tie by it. Overlaps
// are counted through an index from path to the plans holding it, so the cost
// is the number of (path, plan) hits rather than old pages times fresh plans;
// on a replan only the files of the old pages to place are indexed.
#include "zenthar_kodrune/workers/wiki/replan_carry.hpp"

#include <tsl/ordered_map.h>
#include <tsl/ordered_set.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace zenthar_kodrune::workers::wiki {

Json amend(std::string_view action, std::string_view page_id, std::string_view reason,
           std::optional<std::string_view> level) {
  Json record = Json::object();
  record["action"] = action;
  record["page_id"] = page_id;
  record["reason"] = reason;
  if (level) record["level"] = *level;
  return record;
}

void ReplanRemap::merge(const std::string& fresh_id, const std::string& old_id) {
  if (!merged_index[fresh_id].insert(old_id).second) return;
  merged[fresh_id].push_back(old_id);
}

Json ReplanRemap::to_json() const {
  Json out = Json::object();
  out["map"] = Json::object();
  for (const auto& [fresh_id, old_id] : map) out["map"][fresh_id] = old_id;
  out["merged"] = Json::object();
  for (const auto& [fresh_id, old_ids] : merged) out["merged"][fresh_id] = old_ids;
  return out;
}

namespace {

// Which plans of a list hold a path, each plan listed once per distinct path.
class OverlapIndex {
 public:
  // With `only`, paths outside it are left out: no query can count them.
  // Those paths are entered first, so each plan's path is looked up once.
  explicit OverlapIndex(const PlanList& plans, const std::vector<std::string_view>* only = nullptr)
      : counts_(plans.size(), 0) {
    if (only != nullptr) {
      by_path_.reserve(only->size());
      for (std::string_view path : *only) by_path_.try_emplace(path);
    }
    for (std::size_t i = 0; i < plans.size(); ++i) {
      for (const auto& path : plans[i]->source_files) {
        auto found = by_path_.find(path);
        if (found == by_path_.end()) {
          if (only != nullptr) continue;
          found = by_path_.try_emplace(path).first;
        }
        auto& holders = found.value();
        if (holders.empty() || holders.back() != i) holders.push_back(i);
      }
    }
  }

  // The index of the plan holding most of `files` (distinct paths), the first
  // on ties; nullopt when no plan holds any.
  std::optional<std::size_t> most_shared(const std::vector<std::string_view>& files) {
    for (const auto& path : files) {
      auto found = by_path_.find(path);
      if (found == by_path_.end()) continue;
      for (std::size_t i : found->second) {
        if (counts_[i]++ == 0) touched_.push_back(i);
      }
    }
    std::optional<std::size_t> best;
    for (std::size_t i : touched_) {
      if (!best || counts_[i] > counts_[*best] || (counts_[i] == counts_[*best] && i < *best)) {
        best = i;
      }
    }
    for (std::size_t i : touched_) counts_[i] = 0;
    touched_.clear();
    return best;
  }

 private:
  tsl::ordered_map<std::string_view, std::vector<std::size_t>> by_path_;
  std::vector<std::size_t> counts_;
  std::vector<std::size_t> touched_;
};

// The row's stored files that are still live, each distinct path once, as
// views into the row. A list that is not of texts raises row_text_list's error.
std::vector<std::string_view> live_files(const Json& row, const PathSet& live_paths) {
  std::vector<std::string_view> files;
  const Json* value = find_value(row, "source_files");
  if (value == nullptr || is_empty(*value)) return files;
  if (!value->is_array() || !std::all_of(value->begin(), value->end(),
                                         [](const Json& item) { return item.is_string(); })) {
    row_text_list(row, "source_files");
  }
  tsl::ordered_set<std::string_view> seen;
  for (const auto& item : *value) {
    const auto& path = item.get_ref<const std::string&>();
    if (live_paths.count(path) != 0 && seen.insert(path).second) files.push_back(path);
  }
  return files;
}

}  // namespace

Json carry_superseded(ReplanRemap& remap, const std::string& child_id, const Json& row,
                      const PlanList& family_plans, const PathSet& live_paths,
                      const std::string& reason) {
  const std::vector<std::string_view> files = live_files(row, live_paths);
  if (!family_plans.empty()) {
    OverlapIndex index(family_plans);
    // With no overlap at all the prose still goes to the family's first page:
    // the family as a whole replaced the child.
    const std::size_t target = index.most_shared(files).value_or(0);
    remap.merge(family_plans[target]->page_id, child_id);
  }
  return amend("retire", child_id, reason);
}

void inherit_prose(ReplanRemap& remap, const RowRefs& pinned_existing,
                   const PlanList& fresh_code_plans, const PathSet& live_paths,
                   const IdViews& fresh_ids, Amendments& amendments) {
  // Pages the fresh plan still has keep their own prose; every one is mapped
  // before any overlap is looked at so that such a page is never seeded from
  // another. The pages to place are gathered with their live files in the
  // same pass, before the fresh plans are indexed: only those files need an
  // entry, not every file of the repository.
  struct Orphan {
    std::string_view old_id;
    std::vector<std::string_view> files;
  };
  std::vector<Orphan> orphans;
  std::vector<std::string_view> wanted;
  for (const auto& [old_id, row] : pinned_existing) {
    if (fresh_ids.count(old_id) != 0) {
      remap.map.insert_or_assign(std::string(old_id), std::string(old_id));
    } else {
      orphans.push_back({old_id, live_files(*row, live_paths)});
      wanted.insert(wanted.end(), orphans.back().files.begin(), orphans.back().files.end());
    }
  }
  OverlapIndex index(fresh_code_plans, &wanted);
  for (const auto& orphan : orphans) {
    const std::string old_id(orphan.old_id);
    const auto best = index.most_shared(orphan.files);
    if (!best) {
      amendments.push_back(amend("retire", old_id, "no fresh page shares its files"));
      continue;
    }
    const std::string& best_id = fresh_code_plans[*best]->page_id;
    if (remap.map.find(best_id) == remap.map.end()) {
      remap.map.emplace(best_id, old_id);
      amendments.push_back(amend("remap", old_id, "prose seeds " + best_id));
    } else {
      remap.merge(best_id, old_id);
      amendments.push_back(amend("remap", old_id, "prose merged into " + best_id));
    }
  }
}

}  // namespace zenthar_kodrune::workers::wiki

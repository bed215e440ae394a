// Replan carry: amendment records, and which old pages' prose is carried into
// which fresh page when a family is re-chunked or collapsed, or on a replan.
#pragma once

#include <tsl/ordered_map.h>
#include <tsl/ordered_set.h>

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki {

// {"action", "page_id", "reason"} and "level" only when a level is given.
Json amend(std::string_view action, std::string_view page_id, std::string_view reason,
           std::optional<std::string_view> level = std::nullopt);

// Fresh page id -> the old page id whose prose seeds it (insertion order), and
// `merged`: fresh page id -> the further old pages carried into it (no repeats).
struct ReplanRemap {
  tsl::ordered_map<std::string, std::string> map;
  tsl::ordered_map<std::string, std::vector<std::string>> merged;
  // The (fresh id, old id) pairs held in `merged`, so `merge` tests for a
  // repeat in constant time. Kept in step by `merge`.
  std::unordered_map<std::string, std::unordered_set<std::string>> merged_index;

  // Appends `old_id` to merged[fresh_id] unless it is there already.
  void merge(const std::string& fresh_id, const std::string& old_id);
  // {"map": {...}, "merged": {...}}
  Json to_json() const;
};

// Page ids as views of strings that outlive the set.
using IdViews = tsl::ordered_set<std::string_view>;

// Stored rows with their page ids (each id once), in order, copying neither
// the rows nor the ids.
using RowRefs = std::vector<std::pair<std::string_view, const Json*>>;

// The superseded child's live stored files go with its prose to the family plan
// holding most of them (first on ties; none when `family_plans` is empty).
// Returns amend("retire", child_id, reason).
Json carry_superseded(ReplanRemap& remap, const std::string& child_id, const Json& row,
                      const PlanList& family_plans, const PathSet& live_paths,
                      const std::string& reason);

// On a replan, maps each pinned old page onto the fresh code plan sharing most
// of its live files, appending "retire" and "remap" records to `amendments`.
void inherit_prose(ReplanRemap& remap, const RowRefs& pinned_existing,
                   const PlanList& fresh_code_plans, const PathSet& live_paths,
                   const IdViews& fresh_ids, Amendments& amendments);

}  // namespace zenthar_kodrune::workers::wiki

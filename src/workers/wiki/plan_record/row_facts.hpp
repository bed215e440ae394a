// Stored rows read once: each row's values that reconciliation looks at, found
// in one pass over the row's keys, so the passes that follow (demotion, stored
// families, pinning, titles) do not each search the row again.
//
// Finding a value checks nothing. Each pass still checks the values it uses,
// in its own order, and hands a bad one to the reader it uses
// (row_text, row_text_list, row_page_id) so that the same row fails with the
// same error at the same point.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki::plan_record {

// Pointers into a stored row; nullptr where the row has no such key.
struct RowFacts {
  const Json* page_id = nullptr;
  const Json* title = nullptr;
  const Json* level = nullptr;
  const Json* importance = nullptr;
  const Json* description = nullptr;
  const Json* source_files = nullptr;
  const Json* related_pages = nullptr;
  const Json* page_type = nullptr;
  const Json* content_hash = nullptr;
  // The level as row_text(row, "level", "module") reads it, when the value is
  // one it accepts (`level_ok`), and whether it is a code-unit level: read
  // once, as the row is found, rather than by every pass.
  std::string_view level_text = "module";
  bool level_ok = true;
  bool pinned_level = true;
};

// Whether reconciliation reads the column `column` of a stored row: a row
// holding only such columns (and its "page_id") reconciles as the whole row
// does.
bool is_reconciled_column(std::string_view column);

// The facts of one row; of every row of `existing`, in its order.
RowFacts row_facts_of(const Json& row);
std::vector<RowFacts> row_facts(const Existing& existing);

// The row's level, as row_text(row, "level", "module") returns it; raises what
// it raises.
std::string_view row_level(const Json& row, const RowFacts& facts);

// Raises what row_text(row, key) raises for the value `value` found under
// `key`; reads nothing of a text value.
void check_text(const Json& row, const Json* value, std::string_view key);

// What row_text(row, key, fallback) returns, as a view into the row (or of
// `fallback`), for the value `value` found under `key`; raises what row_text
// raises.
std::string_view row_text_view(const Json& row, const Json* value, std::string_view key,
                               std::string_view fallback = "");

// `value` when it is a non-empty list of texts, nullptr when empty or missing;
// raises what row_text_list(row, key) raises for anything else.
const Json* row_text_list_in_place(const Json& row, const Json* value, std::string_view key);

// The row's "page_id", found as `value`; raises what row_page_id raises.
const std::string& row_page_id_ref(const Json& row, const Json* value);

// _plan_from_row over a row whose facts are known.
PlanPtr plan_from_row(const Json& row, const RowFacts& facts, const PathSet& live_paths);

// _demote_unrecorded_families over rows whose facts are known.
PlanList demote_unrecorded_families(const PlanList& fresh_plans, const Existing& existing,
                                    const std::vector<RowFacts>& facts);

// The positions of `plans` in _by_importance's order.
std::vector<std::size_t> importance_order(const PlanList& plans);

// keep_agent_titles for one plan whose row is known.
void keep_agent_title(PagePlan& plan, const Json& row, const RowFacts& facts);

// keep_agent_titles over rows whose facts are known.
PlanList keep_agent_titles(PlanList plans, const Existing& existing,
                           const std::vector<RowFacts>& facts);

}  // namespace zenthar_kodrune::workers::wiki::plan_record

// The two halves of pin_plan. The classification (pinning.cpp) sorts stored
// rows and fresh plans into the collections below; the pinning-mode assembly
// (pinned_assembly.cpp) turns them into the plan list of a pinned build.
#pragma once

#include <tsl/ordered_map.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "workers/wiki/plan_record/row_facts.hpp"
#include "zenthar_kodrune/workers/wiki/replan_carry.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki::plan_record {

using StoredFamilies = tsl::ordered_map<std::string, std::vector<std::string>>;

// A stored row that keeps its identity as a pinned page.
struct PinnedRow {
  const std::string* page_id;
  const Json* row;
  const RowFacts* facts;
  std::size_t index;  // in the stored order
};

// What the classification hands on to the pinning-mode assembly. Ids view
// plans and rows that outlive the call.
struct Classified {
  StoredFamilies stored_families;
  IdViews family_ids;
  IdViews collapsed;
  std::vector<PinnedRow> pinned_existing;
  PlanList fresh_modules;
  PlanList passthrough;
};

// The pinning mode: stored identities are kept, stored families rebuilt or
// retired, new files given to fresh pages or the catch-all page, and the
// plans put in build order. Appends its amendments to `amendments`.
PlanList assemble_pinned(const Classified& classified, const Existing& existing,
                         const std::vector<RowFacts>& facts, const PathSet& live_paths,
                         Amendments& amendments);

}  // namespace zenthar_kodrune::workers::wiki::plan_record

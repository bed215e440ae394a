// Titles: a page keeps the title its author chose once it has been written.
#pragma once

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki::plan_record {

// For each plan whose row in `existing` has a non-empty "content_hash" and a
// non-empty "title", sets the plan's title to the row's. Returns the same list.
PlanList keep_agent_titles(PlanList plans, const Existing& existing);

}  // namespace zenthar_kodrune::workers::wiki::plan_record

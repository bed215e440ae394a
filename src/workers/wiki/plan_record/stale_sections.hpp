// Which files of a page changed, and which of its sections they make stale.
#pragma once

#include <string>
#include <unordered_set>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki::plan_record {

// {"added", "removed", "modified"}: each a sorted list of the paths of
// `compared`. added: current entry only; removed: stored entry only;
// modified: both, different values.
Json changed_files(const Json& stored, const Json& current,
                   const std::unordered_set<std::string>& compared);

// The "heading" of each section record, in order, whose "files" hold a touched path.
std::vector<std::string> stale_sections(const Json& sections,
                                        const std::unordered_set<std::string>& touched);

}  // namespace zenthar_kodrune::workers::wiki::plan_record

// Which files of a page changed, and which of its sections they make stale;
// the section map over citations already read.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
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

// A stored citation in the common shape, as views into the text that holds
// it: text "path" and "symbol" (empty for none), integer lines.
struct CitationView {
  std::string_view path;
  std::int64_t line_start = 0;
  std::int64_t line_end = 0;
  std::string_view symbol;
};

// section_map over citations and file hashes read as views: a large request
// read from its document builds no value per citation. A file missing from
// `file_hashes` has no hash, as a null one has none.
Json section_map_of_views(
    std::string_view body, const std::vector<CitationView>& citations,
    const std::unordered_map<std::string_view, std::string_view>& file_hashes);

}  // namespace zenthar_kodrune::workers::wiki::plan_record

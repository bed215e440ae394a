// Citations written in a page's prose.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki::plan_record {

// Markdown links whose target is a repository path with a line anchor:
// [text](src/a.cpp#L10-L20) or [text](src/a.cpp#L7). Each gives
// {"path", "line_start", "line_end"} in text order, repeats kept.
Json prose_citations(std::string_view text);

// One citation written in prose, its path a view into the scanned text.
struct ProseCitation {
  std::string_view path;
  std::int64_t line_start = 0;
  std::int64_t line_end = 0;
};

// The first citation of `text` that starts at or after `pos`, or nullopt; `pos`
// moves past it. Calls in turn from 0 give what `prose_citations` lists, for
// callers that only look citations up and need no records.
std::optional<ProseCitation> next_prose_citation(std::string_view text, std::size_t& pos);

}  // namespace zenthar_kodrune::workers::wiki::plan_record

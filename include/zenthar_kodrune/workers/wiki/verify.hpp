// Citations written in a page's prose.
#pragma once

#include <string_view>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki {

// Markdown links whose target is a repository path with a line anchor:
// [text](src/a.cpp#L10-L20) or [text](src/a.cpp#L7). Each gives
// {"path", "line_start", "line_end"} in text order, repeats kept.
Json prose_citations(std::string_view text);

}  // namespace zenthar_kodrune::workers::wiki

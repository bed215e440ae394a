// The page-id rules every module shares: which ids are the catch-all page's,
// which are custom pages', where a page's body lives, and the catch-all page
// itself. The planner makes ids by them, reconciliation reads stored ids by
// them, and the store side writes rows by them, so they are kept here once.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki::model {

// The catch-all page's id and title when no stored row names them.
inline constexpr std::string_view CATCH_ALL_ID = "module-additional";
inline constexpr std::string_view CATCH_ALL_TITLE = "Other code";

// A page the steering defines: never pinned, never given a skeleton row.
inline bool is_custom_id(std::string_view page_id) { return page_id.starts_with("custom-"); }

// Where a page's body is kept, below the branch's wiki folder, when its row
// does not say otherwise: "pages/<page_id>.md".
std::string page_rel_path(std::string_view page_id);

// The page that collects the code no other page covers. The description is
// the one every build gives it ("Remaining modules and files (N files)."),
// so a plan that keeps its files leaves its row as it is. `files` are sorted
// here when they are not already.
PlanPtr catch_all_page(std::vector<std::string> files,
                       std::string page_id = std::string(CATCH_ALL_ID),
                       std::string title = std::string(CATCH_ALL_TITLE));

}  // namespace zenthar_kodrune::workers::wiki::model

// The fields of a plan's JSON form, in the order it is written and read:
// texts and lists of text, then "catch_all", a boolean, on its own. The one
// list every reader and writer of that form goes through.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki::model {

struct PlanField {
  std::string_view key;
  std::string PagePlan::*text;                // nullptr for a list
  std::vector<std::string> PagePlan::*texts;  // nullptr for a text
};

inline constexpr PlanField kPlanFields[] = {{"page_id", &PagePlan::page_id, nullptr},
                                            {"title", &PagePlan::title, nullptr},
                                            {"level", &PagePlan::level, nullptr},
                                            {"importance", &PagePlan::importance, nullptr},
                                            {"description", &PagePlan::description, nullptr},
                                            {"topic", &PagePlan::topic, nullptr},
                                            {"source_files", nullptr, &PagePlan::source_files},
                                            {"children", nullptr, &PagePlan::children},
                                            {"related_pages", nullptr, &PagePlan::related_pages},
                                            {"parent_section", &PagePlan::parent_section, nullptr},
                                            {"type", &PagePlan::type, nullptr}};

inline constexpr std::string_view kPlanCatchAll = "catch_all";

}  // namespace zenthar_kodrune::workers::wiki::model

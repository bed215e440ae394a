// The page-id rules: one answer for the catch-all pattern wherever it is
// asked, and one catch-all page whoever builds it.
#include "workers/wiki/page_ids.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/planner.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

TEST(PageIds, CatchAllPatternMatchesTheWholeIdOnly) {
  const struct {
    const char* id;
    bool catch_all;
  } cases[] = {
      {"module-additional", true},           {"module-additional-2", true},
      {"module-additional-10", true},        {"module-additional-", false},
      {"module-additional-x", false},        {"module-additional-2-b", false},
      {"xmodule-additional", false},         {"module-additional2", false},
      {"module-additional\n", false},        {"module-additional-2\n", false},
      {"module-additional-\xd9\xa3", false},  // an Arabic-Indic digit is no ASCII digit
      {"custom-module-additional", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(is_catch_all_id(c.id), c.catch_all) << c.id;
    EXPECT_EQ(_CATCH_ALL_RE.full_match(c.id), c.catch_all) << c.id;
  }
}

TEST(PageIds, PlannerAndPinningBuildOneCatchAllPage) {
  // Thirty loose files in thirty folders: too small for pages of their own,
  // so the planner hands them to the catch-all page.
  std::vector<std::string> files;
  for (int i = 29; i >= 0; --i) files.push_back("d" + std::to_string(i) + "/f.c");
  std::vector<std::string> sorted = files;
  std::sort(sorted.begin(), sorted.end());
  PlannerSettings settings;
  settings.page_budget = 2;
  const PlanList planned = plan_pages(sorted, settings);
  const auto found = std::find_if(planned.begin(), planned.end(),
                                  [](const PlanPtr& plan) { return plan->catch_all; });
  ASSERT_NE(found, planned.end());
  const PlanPtr built = catch_all_page((*found)->source_files);
  EXPECT_EQ(plan_to_json(**found), plan_to_json(*built));
  EXPECT_EQ(built->description, "Remaining modules and files (" +
                                    std::to_string(built->source_files.size()) + " files).");

  // Files out of order come back sorted; a stored row's id and title stay.
  const PlanPtr stored = catch_all_page(files, "module-additional-2", "Leftovers");
  EXPECT_TRUE(std::is_sorted(stored->source_files.begin(), stored->source_files.end()));
  EXPECT_EQ(stored->page_id, "module-additional-2");
  EXPECT_EQ(stored->title, "Leftovers");
  EXPECT_EQ(page_rel_path(stored->page_id), "pages/module-additional-2.md");
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

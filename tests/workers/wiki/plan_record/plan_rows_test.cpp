// Plan records: stored rows back as plans, and the build order.
#include <gtest/gtest.h>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

TEST(PlanFromRow, EmptyValuesTakeTheirDefaults) {
  const PlanPtr plan = _plan_from_row(Json{{"page_id", "module-p"},
                                           {"title", ""},
                                           {"level", nullptr},
                                           {"importance", 0},
                                           {"source_files", nullptr}},
                                      {"a.py"});
  EXPECT_EQ(plan_to_json(*plan).dump(),
            R"({"page_id":"module-p","title":"module-p","level":"module","importance":"medium",)"
            R"("description":"The module-p page (0 files).","topic":"module-p","source_files":[],)"
            R"("children":[],"related_pages":[],"parent_section":"","type":"","catch_all":false})");
}

// A stored row's fields, its live files sorted and a row without "page_id"
// or with "source_files" of the wrong type are golden cases
// (reconcile_errors); here are repeats and the description made for a row
// without one.
TEST(PlanFromRow, KeepsRepeatedLiveFilesAndDescribesAnUndescribedRow) {
  const Json row = {{"page_id", "p"},
                    {"title", "Parser"},
                    {"level", "part"},
                    {"source_files", {"b.py", "gone.py", "a.py", "b.py"}}};
  const PlanPtr plan = _plan_from_row(row, {"a.py", "b.py"});
  EXPECT_EQ(plan->source_files, (std::vector<std::string>{"a.py", "b.py", "b.py"}));
  EXPECT_EQ(plan->topic, "Parser a.py b.py b.py");
  EXPECT_EQ(plan->description, "The Parser page (3 files).");
  EXPECT_THROW(_plan_from_row(Json{{"page_id", "p"}, {"title", Json::array({"T"})}}, {}),
               TypeError);
}

TEST(ByImportance, CodePagesGoLastByDescendingScoreAndTiesKeepTheirOrder) {
  const PlanList plans = {
      make_plan({.page_id = "high-1", .importance = "high"}),
      make_plan({.page_id = "note", .level = "note", .importance = "critical"}),
      make_plan({.page_id = "low", .importance = "low"}),
      make_plan({.page_id = "high-2", .level = "part", .importance = "high"}),
      make_plan({.page_id = "overview", .level = "overview", .importance = "low"}),
      make_plan({.page_id = "odd", .importance = "urgent"})};
  const PlanList ordered = _by_importance(plans);
  std::vector<std::string> ids;
  for (const auto& plan : ordered) ids.push_back(plan->page_id);
  EXPECT_EQ(ids, (std::vector<std::string>{"note", "overview", "high-1", "high-2", "odd", "low"}));
  EXPECT_EQ(ordered[2].get(), plans[0].get());
  EXPECT_EQ(plans[0]->page_id, "high-1");  // the argument is not reordered
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

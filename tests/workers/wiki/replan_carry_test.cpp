// Replan carry: the remap, and where prose is carried. (Amendment records,
// with and without a level, show in the golden reconcile cases.)
#include "zenthar_kodrune/workers/wiki/replan_carry.hpp"

#include <gtest/gtest.h>

namespace zenthar_kodrune::workers::wiki {
namespace {

Json files_row(std::vector<std::string> files) { return Json{{"source_files", files}}; }

TEST(ReplanRemap, MergeKeepsFirstOrderWithoutRepeats) {
  ReplanRemap remap;
  remap.map.emplace("n", "o");
  remap.merge("b", "x");
  remap.merge("a", "y");
  remap.merge("b", "z");
  remap.merge("b", "x");
  EXPECT_EQ(remap.to_json().dump(), R"({"map":{"n":"o"},"merged":{"b":["x","z"],"a":["y"]}})");
  EXPECT_EQ(ReplanRemap{}.to_json().dump(), R"({"map":{},"merged":{}})");
}

TEST(CarrySuperseded, ProseGoesToThePlanHoldingMostLiveDistinctFiles) {
  const PathSet live{"a.py", "b.py", "c.py"};
  // p1 names a.py twice and dead.py: one distinct live file, so p2 wins with two.
  const PlanList family = {
      make_plan({.page_id = "p1", .source_files = {"a.py", "a.py", "dead.py"}}),
      make_plan({.page_id = "p2", .source_files = {"b.py", "c.py"}})};
  ReplanRemap remap;
  const Json record = carry_superseded(remap, "old", files_row({"a.py", "b.py", "c.py", "dead.py"}),
                                       family, live, "module re-chunked; superseded child");
  EXPECT_EQ(
      record.dump(),
      R"({"action":"retire","page_id":"old","reason":"module re-chunked; superseded child"})");
  EXPECT_EQ(remap.to_json().dump(), R"({"map":{},"merged":{"p2":["old"]}})");
}

TEST(CarrySuperseded, TiesAndNoOverlapGoToTheFirstPlanAndNoFamilyTakesNothing) {
  const PathSet live{"a.py", "b.py"};
  const PlanList family = {make_plan({.page_id = "p1", .source_files = {"a.py"}}),
                           make_plan({.page_id = "p2", .source_files = {"b.py"}})};
  ReplanRemap remap;
  carry_superseded(remap, "tie", files_row({"b.py", "a.py"}), family, live, "r");
  carry_superseded(remap, "none", files_row({"gone.py"}), family, live, "r");
  carry_superseded(remap, "tie", files_row({"a.py"}), family, live, "r");
  EXPECT_EQ(remap.to_json().dump(), R"({"map":{},"merged":{"p1":["tie","none"]}})");
  ReplanRemap untouched;
  EXPECT_EQ(carry_superseded(untouched, "old", files_row({"a.py"}), {}, live, "r")["action"],
            "retire");
  EXPECT_EQ(untouched.to_json().dump(), R"({"map":{},"merged":{}})");
}

TEST(InheritProse, KeptPagesKeepTheirOwnProseBeforeAnyOverlapIsMapped) {
  // "old" comes first in the store and shares its file with the fresh
  // module-k, whose own stored page must still seed it.
  const Json old_row = files_row({"k.py", "x.py"});
  const Json kept_row = files_row({"k.py"});
  const Json lone_row = files_row({"x.py"});
  const Json dead_row = files_row({"dead.py"});
  const Json tied_row = files_row({"t1.py", "t2.py"});
  RowRefs pinned;
  pinned.emplace_back("old", &old_row);
  pinned.emplace_back("module-k", &kept_row);
  pinned.emplace_back("lone", &lone_row);
  pinned.emplace_back("dead", &dead_row);
  pinned.emplace_back("tied", &tied_row);
  const PlanList fresh = {make_plan({.page_id = "module-k", .source_files = {"k.py"}}),
                          make_plan({.page_id = "module-x", .source_files = {"x.py", "x.py"}}),
                          make_plan({.page_id = "module-t1", .source_files = {"t1.py"}}),
                          make_plan({.page_id = "module-t2", .source_files = {"t2.py"}})};
  const PathSet live{"k.py", "x.py", "t1.py", "t2.py"};
  ReplanRemap remap;
  Amendments amendments;
  inherit_prose(remap, pinned, fresh, live, {"module-k", "module-x", "module-t1", "module-t2"},
                amendments);
  EXPECT_EQ(remap.to_json().dump(),
            R"({"map":{"module-k":"module-k","module-x":"lone","module-t1":"tied"},)"
            R"("merged":{"module-k":["old"]}})");
  Json records = amendments;
  EXPECT_EQ(records.dump(),
            R"([{"action":"remap","page_id":"old","reason":"prose merged into module-k"},)"
            R"({"action":"remap","page_id":"lone","reason":"prose seeds module-x"},)"
            R"({"action":"retire","page_id":"dead","reason":"no fresh page shares its files"},)"
            R"({"action":"remap","page_id":"tied","reason":"prose seeds module-t1"}])");
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

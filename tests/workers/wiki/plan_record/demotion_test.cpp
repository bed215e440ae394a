// Unrecorded family demotion: a fresh family the store does not hold gives way
// to stored pinned pages over its files.
#include <gtest/gtest.h>

#include <functional>

#include "support/plans.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

struct Family {
  PlanPtr parent = make_plan({.page_id = "module-ports",
                              .children = {"module-ports-part-1", "module-ports-part-2"},
                              .parent_section = "Packages"});
  PlanPtr part1 = make_plan(
      {.page_id = "module-ports-part-1", .level = "part", .source_files = {"ports/a.py"}});
  PlanPtr part2 = make_plan(
      {.page_id = "module-ports-part-2", .level = "part", .source_files = {"ports/b.py"}});
  PlanPtr other = make_plan({.page_id = "overview", .level = "overview"});
  PlanList plans() const { return {other, parent, part1, part2}; }
};

using kodrune_test::ids_of;
using kodrune_test::rows_of;

TEST(DemoteUnrecordedFamilies, KeepsFamiliesNoStoredPinnedPageOverlaps) {
  const Json files = {{"source_files", {"ports/a.py"}}};
  const Json pinned = {{"source_files", {"ports/a.py", "ports/b.py"}}};
  struct Case {
    const char* name;
    Existing store;
    std::function<void(Family&)> change = [](Family&) {};
  };
  const Case cases[] = {
      {"empty store", rows_of({})},
      {"catch-all row", rows_of({{"module-additional", files}})},
      {"numbered catch-all row", rows_of({{"module-additional-3", files}})},
      {"custom row", rows_of({{"custom-ports", files}})},
      {"row of another level",
       rows_of({{"overview", {{"level", "overview"}, {"source_files", {"ports/a.py"}}}}})},
      {"row without files", rows_of({{"module-empty", {{"source_files", Json::array()}}}})},
      {"the parent is stored: the plan of record's own family",
       rows_of({{"module-ports", Json::object()}, {"module-x", pinned}})},
      {"the parent is not a code-unit page", rows_of({{"module-x", pinned}}),
       [](Family& f) { f.parent->level = "overview"; }},
      {"the parts hold no pinned file", rows_of({{"module-x", {{"source_files", {"z.py"}}}}})},
      {"the children name no fresh plan", rows_of({{"module-x", pinned}}),
       [](Family& f) { f.parent->children = {"missing"}; }},
  };
  for (const auto& c : cases) {
    Family f;
    c.change(f);
    EXPECT_EQ(ids_of(_demote_unrecorded_families(f.plans(), c.store)),
              (std::vector<std::string>{"overview", "module-ports", "module-ports-part-1",
                                        "module-ports-part-2"}))
        << c.name;
    EXPECT_EQ(f.part1->parent_section, "") << c.name;
  }
}

TEST(DemoteUnrecordedFamilies, OverlapWithAStoredPageDropsTheParentAndMovesItsSection) {
  // The stored row has no level (a "module" page), and its file is no longer
  // in the repository: it is still pinned.
  Family f;
  const PlanList caller = f.plans();
  const PlanList out = _demote_unrecorded_families(
      caller, rows_of({{"module-ports-src", {{"source_files", {"gone.py", "ports/b.py"}}}}}));
  EXPECT_EQ(ids_of(out),
            (std::vector<std::string>{"overview", "module-ports-part-1", "module-ports-part-2"}));
  // The parts are the caller's own objects, changed in place.
  EXPECT_EQ(out[1].get(), f.part1.get());
  EXPECT_EQ(caller[2]->parent_section, "Packages");
  EXPECT_EQ(caller[3]->parent_section, "Packages");
  EXPECT_EQ(f.parent->children.size(), 2u);
}

TEST(DemoteUnrecordedFamilies, TwoDemotedFamiliesLeaveEveryOtherPlanInPlace) {
  Family f;
  auto parent2 = make_plan(
      {.page_id = "module-lex", .children = {"module-lex-part-1"}, .parent_section = "Lexing"});
  auto lex1 =
      make_plan({.page_id = "module-lex-part-1", .level = "part", .source_files = {"lex/a.py"}});
  const PlanList plans = {parent2, f.other, f.parent, lex1, f.part1, f.part2};
  const PlanList out = _demote_unrecorded_families(
      plans, rows_of({{"module-x", {{"source_files", {"lex/a.py", "ports/a.py"}}}}}));
  EXPECT_EQ(ids_of(out), (std::vector<std::string>{"overview", "module-lex-part-1",
                                                   "module-ports-part-1", "module-ports-part-2"}));
  EXPECT_EQ(lex1->parent_section, "Lexing");
  EXPECT_EQ(f.part2->parent_section, "Packages");
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

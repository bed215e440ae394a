// Unrecorded family demotion: a fresh family the store does not hold gives way
// to stored pinned pages over its files.
#include <gtest/gtest.h>

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

Existing store(std::initializer_list<std::pair<std::string, Json>> rows) {
  Existing existing;
  for (const auto& [id, row] : rows) existing.emplace(id, row);
  return existing;
}

std::vector<std::string> ids(const PlanList& plans) {
  std::vector<std::string> out;
  for (const auto& plan : plans) out.push_back(plan->page_id);
  return out;
}

TEST(DemoteUnrecordedFamilies, StoresPinningNoFileLeaveEveryFamilyWhole) {
  const Json files = {{"source_files", {"ports/a.py"}}};
  const std::vector<Existing> stores = {
      store({}),
      store({{"module-additional", files}}),
      store({{"module-additional-3", files}}),
      store({{"custom-ports", files}}),
      store({{"overview", {{"level", "overview"}, {"source_files", {"ports/a.py"}}}}}),
      store({{"module-empty", {{"source_files", Json::array()}}}}),
  };
  for (std::size_t i = 0; i < stores.size(); ++i) {
    Family f;
    EXPECT_EQ(ids(_demote_unrecorded_families(f.plans(), stores[i])),
              (std::vector<std::string>{"overview", "module-ports", "module-ports-part-1",
                                        "module-ports-part-2"}))
        << i;
    EXPECT_EQ(f.part1->parent_section, "") << i;
  }
}

TEST(DemoteUnrecordedFamilies, OverlapWithAStoredPageDropsTheParentAndMovesItsSection) {
  // The stored row has no level (a "module" page), and its file is no longer
  // in the repository: it is still pinned.
  Family f;
  const PlanList caller = f.plans();
  const PlanList out = _demote_unrecorded_families(
      caller, store({{"module-ports-src", {{"source_files", {"gone.py", "ports/b.py"}}}}}));
  EXPECT_EQ(ids(out),
            (std::vector<std::string>{"overview", "module-ports-part-1", "module-ports-part-2"}));
  // The parts are the caller's own objects, changed in place.
  EXPECT_EQ(out[1].get(), f.part1.get());
  EXPECT_EQ(caller[2]->parent_section, "Packages");
  EXPECT_EQ(caller[3]->parent_section, "Packages");
  EXPECT_EQ(f.parent->children.size(), 2u);
}

TEST(DemoteUnrecordedFamilies, KeepsFamiliesTheStoreHoldsOrThatCannotOverlap) {
  const Json pinned = {{"source_files", {"ports/a.py", "ports/b.py"}}};
  {
    Family f;  // the parent is stored: the plan of record's own family
    EXPECT_EQ(_demote_unrecorded_families(
                  f.plans(), store({{"module-ports", Json::object()}, {"module-x", pinned}}))
                  .size(),
              4u);
  }
  {
    Family f;  // the parent is not a code-unit page
    f.parent->level = "overview";
    EXPECT_EQ(_demote_unrecorded_families(f.plans(), store({{"module-x", pinned}})).size(), 4u);
  }
  {
    Family f;  // the parts hold no pinned file
    EXPECT_EQ(
        _demote_unrecorded_families(f.plans(), store({{"module-x", {{"source_files", {"z.py"}}}}}))
            .size(),
        4u);
  }
  {
    Family f;  // the children name no fresh plan
    f.parent->children = {"missing"};
    EXPECT_EQ(_demote_unrecorded_families(f.plans(), store({{"module-x", pinned}})).size(), 4u);
  }
}

TEST(DemoteUnrecordedFamilies, TwoDemotedFamiliesLeaveEveryOtherPlanInPlace) {
  Family f;
  auto parent2 = make_plan(
      {.page_id = "module-lex", .children = {"module-lex-part-1"}, .parent_section = "Lexing"});
  auto lex1 =
      make_plan({.page_id = "module-lex-part-1", .level = "part", .source_files = {"lex/a.py"}});
  const PlanList plans = {parent2, f.other, f.parent, lex1, f.part1, f.part2};
  const PlanList out = _demote_unrecorded_families(
      plans, store({{"module-x", {{"source_files", {"lex/a.py", "ports/a.py"}}}}}));
  EXPECT_EQ(ids(out), (std::vector<std::string>{"overview", "module-lex-part-1",
                                                "module-ports-part-1", "module-ports-part-2"}));
  EXPECT_EQ(lex1->parent_section, "Lexing");
  EXPECT_EQ(f.part2->parent_section, "Packages");
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

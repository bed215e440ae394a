// Plan pinning through the C++ API: which objects the results are. What
// pinning, stored rows read back, the build order, family demotion and a
// replan's remap compute is in the golden cases (reconcile_*.jsonl); here is
// only what JSON cannot show: a result plan is the caller's own object,
// changed in place, and an argument list is never reordered.
#include <gtest/gtest.h>

#include "support/plans.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using kodrune_test::ids_of;
using kodrune_test::rows_of;
using Files = std::vector<std::string>;

TEST(PinPlan, ResultPlansAreTheCallersObjectsChangedInPlace) {
  auto early = make_plan({.page_id = "module-src", .source_files = {"src/c.py", "src/b.py"}});
  auto net =
      make_plan({.page_id = "module-net", .source_files = {"net/y.py", "src/b.py", "net/x.py"}});
  auto late = make_plan({.page_id = "module-src", .source_files = {"src/a.py"}});
  auto catch_all = make_plan(
      {.page_id = "module-additional", .source_files = {"m/x.py", "m/y.py"}, .catch_all = true});
  const PinResult result =
      pin_plan({early, net, late, catch_all},
               rows_of({{"module-src", Json{{"source_files", {"src/a.py"}}}}}),
               {"src/a.py", "src/b.py", "src/c.py", "net/x.py", "net/y.py", "m/x.py", "m/y.py"});
  // The later plan of the kept id is the page; the earlier one's new files extend it.
  ASSERT_EQ(ids_of(result.plans), (Files{"module-src", "module-net", "module-additional"}));
  EXPECT_EQ(result.plans[0].get(), late.get());
  EXPECT_EQ(late->source_files, (Files{"src/a.py", "src/b.py", "src/c.py"}));
  EXPECT_EQ(early->source_files, (Files{"src/c.py", "src/b.py"}));
  EXPECT_EQ(result.plans[1].get(), net.get());
  EXPECT_EQ(net->source_files, (Files{"net/x.py", "net/y.py"}));
  // A fresh catch-all plan is never the page: the page is built anew.
  EXPECT_NE(result.plans[2].get(), catch_all.get());
}

TEST(PlanOrderAndDemotion, ReturnTheCallersObjectsAndLeaveItsListAlone) {
  auto parent = make_plan({.page_id = "module-ports",
                           .importance = "low",
                           .children = {"module-ports-part-1", "module-ports-part-2"},
                           .parent_section = "Packages"});
  auto part1 = make_plan(
      {.page_id = "module-ports-part-1", .level = "part", .source_files = {"ports/a.py"}});
  auto part2 = make_plan(
      {.page_id = "module-ports-part-2", .level = "part", .source_files = {"ports/b.py"}});
  const PlanList caller = {parent, part1, part2};
  const PlanList ordered = _by_importance(caller);
  ASSERT_EQ(ids_of(ordered), (Files{"module-ports-part-1", "module-ports-part-2", "module-ports"}));
  EXPECT_EQ(ordered[0].get(), part1.get());
  // Demoted parts are changed in place: they take the dropped parent's section.
  const PlanList out = _demote_unrecorded_families(
      caller, rows_of({{"module-ports-src", Json{{"source_files", {"ports/b.py"}}}}}));
  ASSERT_EQ(ids_of(out), (Files{"module-ports-part-1", "module-ports-part-2"}));
  EXPECT_EQ(out[0].get(), part1.get());
  EXPECT_EQ(part1->parent_section, "Packages");
  EXPECT_EQ(part2->parent_section, "Packages");
  EXPECT_EQ(ids_of(caller), (Files{"module-ports", "module-ports-part-1", "module-ports-part-2"}));
  EXPECT_EQ(parent->children.size(), 2u);
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

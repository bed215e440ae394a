// Plan pinning: stored identities, families, new files and the catch-all page.
#include <gtest/gtest.h>

#include "support/plans.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using kodrune_test::find_plan;
using kodrune_test::ids_of;
using kodrune_test::rows_of;

Json files(std::initializer_list<const char*> paths) {
  return Json{{"source_files", Json(std::vector<std::string>(paths.begin(), paths.end()))}};
}

std::string records(const Amendments& amendments) { return Json(amendments).dump(); }

using Files = std::vector<std::string>;

TEST(PinPlan, AdmittedAndExtendedPlansChangeWhereTheCallerHoldsThem) {
  auto early = make_plan({.page_id = "module-src", .source_files = {"src/c.py", "src/b.py"}});
  auto net =
      make_plan({.page_id = "module-net", .source_files = {"net/y.py", "src/b.py", "net/x.py"}});
  auto late = make_plan({.page_id = "module-src", .source_files = {"src/a.py"}});
  const PinResult result =
      pin_plan({early, net, late}, rows_of({{"module-src", files({"src/a.py"})}}),
               {"src/a.py", "src/b.py", "src/c.py", "net/x.py", "net/y.py"});
  // The later plan of the kept id is the page; the earlier one's new files extend it.
  EXPECT_EQ(ids_of(result.plans), (Files{"module-src", "module-net"}));
  EXPECT_EQ(result.plans[0].get(), late.get());
  EXPECT_EQ(late->source_files, (Files{"src/a.py", "src/b.py", "src/c.py"}));
  EXPECT_EQ(result.plans[1].get(), net.get());
  EXPECT_EQ(net->source_files, (Files{"net/x.py", "net/y.py"}));
  // The amendments of this case are golden (reconcile_order 3).
}

TEST(PinPlan, APageWithoutLiveFilesRetiresUnlessThePlannerStillHasIt) {
  const Existing existing =
      rows_of({{"module-a", files({"gone.py"})}, {"module-b", files({"x.py"})}});
  const PinResult dropped = pin_plan({}, existing, {"x.py"});
  EXPECT_EQ(ids_of(dropped.plans), (Files{"module-b"}));
  EXPECT_EQ(records(dropped.amendments),
            R"j([{"action":"retire","page_id":"module-a","reason":"all source files gone"}])j");

  auto fresh_a = make_plan({.page_id = "module-a", .title = "A"});
  const PinResult kept = pin_plan({fresh_a}, existing, {"x.py"});
  EXPECT_EQ(ids_of(kept.plans), (Files{"module-a", "module-b"}));
  EXPECT_EQ(kept.plans[0].get(), fresh_a.get());
  EXPECT_EQ(records(kept.amendments), "[]");
}

TEST(PinPlan, FilesTheFreshPlanNoLongerListsGoToTheCatchAllPage) {
  // The kept page takes the planner's content; the stored b.py is left over,
  // and a single new file is not enough for a page.
  auto fresh_a = make_plan({.page_id = "module-a", .title = "Planned", .source_files = {"a/a.py"}});
  auto single = make_plan({.page_id = "module-one", .source_files = {"one/x.py"}});
  const PinResult result =
      pin_plan({fresh_a, single}, rows_of({{"module-a", files({"a/a.py", "a/b.py"})}}),
               {"a/a.py", "a/b.py", "one/x.py"});
  EXPECT_EQ(ids_of(result.plans), (Files{"module-a", "module-additional"}));
  EXPECT_EQ(result.plans[0]->title, "Planned");
  EXPECT_EQ(result.plans[1]->source_files, (Files{"a/b.py", "one/x.py"}));
  EXPECT_EQ(records(result.amendments), "[]");
}

TEST(PinPlan, FirstFreshPlanClaimsANewFileAndAFreshCatchAllPlanNeverBecomesAPage) {
  auto first = make_plan({.page_id = "module-one", .source_files = {"n/a.py", "n/b.py"}});
  auto second = make_plan({.page_id = "module-two", .source_files = {"n/b.py", "n/c.py"}});
  auto fresh_catch_all = make_plan({.page_id = "module-additional",
                                    .source_files = {"m/x.py", "m/y.py", "m/z.py"},
                                    .catch_all = true});
  const PinResult result =
      pin_plan({first, second, fresh_catch_all}, rows_of({{"module-k", files({"k.py"})}}),
               {"k.py", "n/a.py", "n/b.py", "n/c.py", "m/x.py", "m/y.py", "m/z.py", "stray.py"});
  EXPECT_EQ(ids_of(result.plans), (Files{"module-k", "module-one", "module-additional"}));
  EXPECT_EQ(first->source_files, (Files{"n/a.py", "n/b.py"}));
  EXPECT_EQ(second->source_files, (Files{"n/b.py", "n/c.py"}));  // dropped, not changed
  const PagePlan& catch_all = find_plan(result.plans, "module-additional");
  EXPECT_NE(&catch_all, fresh_catch_all.get());
  EXPECT_EQ(catch_all.source_files, (Files{"m/x.py", "m/y.py", "m/z.py", "n/c.py", "stray.py"}));
  EXPECT_EQ(catch_all.description, "Remaining modules and files (5 files).");
  EXPECT_EQ(records(result.amendments),
            R"j([{"action":"add","page_id":"module-one","reason":"new subsystem (2 files)"}])j");
}

TEST(PinPlan, CatchAllTopicSamplesTwelveSortedFileNames) {
  Files live = {"k.py"};
  for (char c = 'm'; c >= 'a'; --c) live.push_back(std::string("d/") + c + ".py");
  const PinResult result =
      pin_plan({}, rows_of({{"module-k", files({"k.py"})}}), PathSet(live.begin(), live.end()));
  const PagePlan& catch_all = find_plan(result.plans, "module-additional");
  EXPECT_EQ(catch_all.topic,
            "additional modules utilities helpers a.py b.py c.py d.py e.py f.py g.py h.py i.py "
            "j.py k.py l.py");
  EXPECT_EQ(catch_all.description, "Remaining modules and files (13 files).");
}

TEST(PinPlan, StoredCatchAllKeepsItsLiveFilesAndOnlyTheLastOneCounts) {
  Json first = files({"a.py"});
  first["title"] = "First";
  Json last = files({"k.py", "gone.py", "b.py"});
  last["title"] = "Misc";
  const PinResult result = pin_plan({},
                                    rows_of({{"module-additional", first},
                                             {"module-k", files({"k.py"})},
                                             {"module-additional-2", last}}),
                                    {"k.py", "a.py", "b.py"});
  EXPECT_EQ(ids_of(result.plans), (Files{"module-k", "module-additional-2"}));
  const PagePlan& catch_all = *result.plans[1];
  EXPECT_EQ(catch_all.title, "Misc");
  // k.py stays with the catch-all page though module-k lists it; a.py of the
  // replaced catch-all row is a leftover.
  EXPECT_EQ(catch_all.source_files, (Files{"a.py", "b.py", "k.py"}));
  EXPECT_EQ(records(result.amendments), "[]");
}

TEST(PinPlan, StoredFamilyRebuildsOverItsKeptChildrenInStoredOrder) {
  const Existing existing = rows_of({
      {"module-p",
       {{"title", "Parser"},
        {"related_pages", {"module-p-3", "module-p-1", "unknown", "module-p-2"}}}},
      {"module-p-1", files({"p/1.py"})},
      {"module-p-2", files({"p/2.py"})},
      {"module-p-3", files({"p/3.py", "p/gone.py"})},
  });
  const PinResult result = pin_plan({}, existing, {"p/1.py", "p/3.py"});
  EXPECT_EQ(records(result.amendments),
            R"j([{"action":"retire","page_id":"module-p-2","reason":"all source files gone"}])j");
  const PagePlan& parent = find_plan(result.plans, "module-p");
  EXPECT_EQ(parent.children, (Files{"module-p-3", "module-p-1"}));
  EXPECT_EQ(parent.related_pages, (Files{"module-p-3", "module-p-1"}));
  EXPECT_TRUE(parent.source_files.empty());
  EXPECT_EQ(parent.description, "The Parser page.");
  EXPECT_EQ(parent.topic, "Parser 3.py gone.py 1.py");
  EXPECT_EQ(find_plan(result.plans, "module-p-1").parent_section, "Parser");
}

TEST(PinPlan, EmptyCodeRowsAreRetiredAsEmptyParents) {
  // A code row whose related pages name no stored row is no family.
  const PinResult result = pin_plan(
      {}, rows_of({{"module-e", {{"related_pages", {"nowhere"}}}}, {"module-k", files({"k.py"})}}),
      {"k.py"});
  EXPECT_EQ(ids_of(result.plans), (Files{"module-k"}));
  EXPECT_EQ(
      records(result.amendments),
      R"j([{"action":"retire","page_id":"module-e","reason":"decomposition changed; empty parent"}])j");
}

TEST(PinPlan, ReplanSkipsDemotionAndKeepsThePlannerOrder) {
  auto parent =
      make_plan({.page_id = "module-ports", .importance = "low", .children = {"module-ports-1"}});
  auto part = make_plan({.page_id = "module-ports-1", .level = "part", .source_files = {"p/a.py"}});
  auto high = make_plan(
      {.page_id = "module-z", .importance = "high", .source_files = {"z/1.py", "z/2.py"}});
  const Existing existing = rows_of({{"module-ports-src", files({"p/a.py"})}});
  const PathSet live = {"p/a.py", "z/1.py", "z/2.py"};

  const PinResult replanned = pin_plan({parent, part, high}, existing, live, true);
  EXPECT_EQ(ids_of(replanned.plans), (Files{"module-ports", "module-ports-1", "module-z"}));
  EXPECT_EQ(replanned.remap.to_json().dump(),
            R"j({"map":{"module-ports-1":"module-ports-src"},"merged":{}})j");

  // Pinning demotes the family: its part is then a plain fresh page whose one
  // file the stored page already holds, and the result is in build order.
  const PinResult pinned = pin_plan({parent, part, high}, existing, live);
  EXPECT_EQ(ids_of(pinned.plans), (Files{"module-z", "module-ports-src"}));
  EXPECT_EQ(records(pinned.amendments),
            R"j([{"action":"add","page_id":"module-z","reason":"new subsystem (2 files)"}])j");
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

// Plan pinning: stored identities, families, new files and the catch-all
// page; stored rows back as plans and the build order; unrecorded family
// demotion (a fresh family the store does not hold gives way to stored
// pinned pages over its files); and a replan's remap and where its prose is
// carried. (Amendment records show in the golden reconcile cases.)
#include <gtest/gtest.h>

#include <functional>

#include "support/plans.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/replan_carry.hpp"

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

Json files_row(std::vector<std::string> files) { return Json{{"source_files", files}}; }

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
  // Merged ids keep their first order without repeats.
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

// Skeleton rows for a first plan: which plans get one, the exact row, one
// transaction per call, and the plan of record they make for pinning.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "support/forwarding_store.hpp"
#include "support/store_backends.hpp"
#include "support/temp_dir.hpp"
#include "workers/wiki/plan_record/store_test_host.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

// Against a real store of each backend.
class PersistPlanSkeletonInStore : public kodrune_test::StoreBackendTest {};

// A first plan: a family with two parts, a plain unit, and pages no skeleton
// is written for.
PlanList first_plan() {
  return {
      make_plan(
          {.page_id = "overview", .title = "Overview", .level = "overview", .importance = "high"}),
      make_plan({.page_id = "module-core",
                 .title = "src/core",
                 .importance = "high",
                 .description = "The core",
                 .children = {"module-core-part-1", "module-core-part-2"},
                 .related_pages = {"module-util"}}),
      make_plan({.page_id = "module-core-part-1",
                 .title = "src/core (1)",
                 .level = "part",
                 .importance = "",
                 .source_files = {"src/core/b.cpp", "src/core/a.cpp", "src/core/b.cpp"}}),
      make_plan({.page_id = "module-core-part-2",
                 .title = "src/core (2)",
                 .level = "part",
                 .source_files = {"src/core/c.cpp"}}),
      make_plan({.page_id = "module-util",
                 .title = "src/util",
                 .source_files = {"src/util/u.cpp"},
                 .related_pages = {"overview"},
                 .parent_section = "Helpers",
                 .type = "other-code"}),
      make_plan({.page_id = "custom-guide", .title = "Guide", .source_files = {"docs/g.md"}}),
      make_plan({.page_id = "module-empty", .title = "src/empty"}),
      make_plan({.page_id = "notes", .title = "Notes", .level = "note", .source_files = {"n.py"}}),
  };
}

TEST_P(PersistPlanSkeletonInStore, StoredRowsReadBackWithListsAndTheStaleMarker) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  kodrune_test::StoreHost host(store, "main");
  EXPECT_EQ(host._persist_plan_skeleton(first_plan()), 4);
  const Existing rows = store.load_pages("main");
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(
      rows.at("module-util").dump(),
      R"j({"branch":"main","page_id":"module-util","title":"src/util","description":"","importance":"medium","level":"module","parent_section":"Helpers","rel_path":"pages/module-util.md","source_files":["src/util/u.cpp"],"source_hashes":{"__stale__":"pending"},"related_pages":["overview"],"status":"stale","page_type":"other-code","content_hash":null,"build_cache":{}})j");
  EXPECT_EQ(rows.at("module-core")["related_pages"],
            Json::parse(R"j(["module-core-part-1", "module-core-part-2"])j"));
  EXPECT_EQ(rows.at("module-core")["source_files"], Json::array());
}

// Fails the n-th upsert, passing everything else to the real store.
class FailingStore final : public kodrune_test::ForwardingStore {
 public:
  FailingStore(WikiStore& inner, int fail_at) : ForwardingStore(inner), fail_at_(fail_at) {}
  void upsert_wiki_page(const std::string& branch, const std::string& page_id,
                        const std::string& title, const WikiPageColumns& columns) override {
    if (++upserts_ == fail_at_) throw StoreError("disk full while writing " + page_id);
    ForwardingStore::upsert_wiki_page(branch, page_id, title, columns);
  }

 private:
  int fail_at_;
  int upserts_ = 0;
};

TEST_P(PersistPlanSkeletonInStore, FailurePartWayLeavesNoRowOfTheCall) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  store.upsert_wiki_page("main", "overview", "Overview", WikiPageColumns{});
  FailingStore failing(store, 4);
  kodrune_test::StoreHost host(failing, "main");
  EXPECT_THROW(host._persist_plan_skeleton(first_plan()), StoreError);
  const Existing rows = store.load_pages("main");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows.contains("overview"));
}

TEST_P(PersistPlanSkeletonInStore, PersistedSkeletonPinsEveryPage) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  kodrune_test::StoreHost host(store, "main");
  ASSERT_EQ(host._persist_plan_skeleton(first_plan()), 4);
  const Existing existing = store.load_pages("main");
  const PathSet live = {"src/core/a.cpp", "src/core/b.cpp", "src/core/c.cpp",
                        "src/util/u.cpp", "docs/g.md",      "n.py"};

  const PinResult pinned = pin_plan(first_plan(), existing, live);
  std::vector<std::string> ids;
  for (const auto& plan : pinned.plans) ids.push_back(plan->page_id);
  for (const char* id :
       {"module-core", "module-core-part-1", "module-core-part-2", "module-util"}) {
    EXPECT_THAT(ids, ::testing::Contains(id));
  }
  std::vector<std::string> amended;
  for (const auto& record : pinned.amendments) {
    EXPECT_EQ(record["action"], "add") << record.dump();
    amended.push_back(record["page_id"].get<std::string>());
  }
  EXPECT_THAT(amended, ::testing::UnorderedElementsAre("overview", "custom-guide", "notes"));
}

KODRUNE_ON_EVERY_BACKEND(PersistPlanSkeletonInStore);

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

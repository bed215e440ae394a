// The plan of record's store side against a real store of each backend:
// skeleton rows for a first plan, the stale mark on synthesis pages, retiring
// pages and applying a replan. (Which pages a build writes, and the calls
// each operation makes, are golden: store_*.jsonl. That a first plan's
// skeleton pins every page on the next build is walked end to end:
// e2e/race_test.cpp and e2e/plan_series_test.cpp.)
#include <gtest/gtest.h>

#include "support/forwarding_store.hpp"
#include "support/plans.hpp"
#include "support/store_backends.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/page_retirement.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

// Against a real store of each backend.
class PlanRecordInStore : public kodrune_test::StoreBackendTest {};

// A host over the test's store: the branch's rows come from the store; no
// file exists and there is no steering text.
class StoreHost final : public PlanRecordMixin {
 public:
  StoreHost(WikiStore& store, std::string branch) : store_(store), branch_(std::move(branch)) {
    reload();
  }
  const std::string& branch() const override { return branch_; }
  const std::filesystem::path& pages_dir() const override { return pages_dir_; }
  const Existing& _existing() const override { return existing_; }
  WikiStore& repository() override { return store_; }
  Json _source_hashes(const std::vector<std::string>&) override { return Json::object(); }
  void reload() { existing_ = store_.load_pages(branch_); }

 protected:
  std::string _steering_text() override { return ""; }
  void _reload_existing() override { reload(); }

 private:
  WikiStore& store_;
  std::string branch_;
  std::filesystem::path pages_dir_ = "pages";
  Existing existing_;
};

using kodrune_test::ids_of;
using Ids = std::set<std::string>;

TEST_P(PlanRecordInStore, MarksOnlyTheHostBranchAndMarkedPagesAreSelected) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  WikiPageColumns saved;
  saved.status = "written";
  saved.source_hashes = Json::object();
  for (const char* branch : {"main", "dev"}) {
    store.upsert_wiki_page(branch, "module-parent", "Parent", saved);
    store.upsert_wiki_page(branch, "module-other", "Other", saved);
  }
  StoreHost host(store, "main");
  const PlanList plans =
      plans_from_json(Json::parse(R"([{"page_id": "module-parent", "children": ["x"]},
                                      {"page_id": "module-other", "children": ["y"]}])"));
  EXPECT_EQ(host._select_stale(plans, host._existing(), false), Ids{});

  host._mark_synthesis_stale({"module-parent", "module-gone"});

  const Existing main_rows = store.load_pages("main");
  EXPECT_EQ(main_rows.at("module-parent")["source_hashes"], stale_marker());
  EXPECT_EQ(main_rows.at("module-parent")["status"], "written");
  EXPECT_EQ(main_rows.at("module-other")["source_hashes"], Json::object());
  EXPECT_EQ(store.load_pages("dev").at("module-parent")["source_hashes"], Json::object());
  // Rows loaded before the mark do not see it; reloaded ones do.
  EXPECT_EQ(host._select_stale(plans, host._existing(), false), Ids{});
  host.reload();
  EXPECT_EQ(host._select_stale(plans, host._existing(), false), Ids{"module-parent"});
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

TEST_P(PlanRecordInStore, SkeletonFailurePartWayLeavesNoRowOfTheCall) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  store.upsert_wiki_page("main", "overview", "Overview", WikiPageColumns{});
  FailingStore failing(store, 4);
  StoreHost host(failing, "main");
  PlanList plans;
  for (const std::string id : {"a", "b", "c", "d"}) {
    plans.push_back(make_plan({.page_id = "module-" + id, .source_files = {id + ".py"}}));
  }
  EXPECT_THROW(host._persist_plan_skeleton(plans), StoreError);
  const Existing rows = store.load_pages("main");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_TRUE(rows.contains("overview"));
}

void add_row(WikiStore& store, const std::string& branch, const std::string& id,
             const std::string& level) {
  WikiPageColumns columns;
  columns.level = level;
  columns.source_files = {id + ".py"};
  columns.status = "written";
  store.upsert_wiki_page(branch, id, id, columns);
}

TEST_P(PlanRecordInStore, RetiringDeletesOnlyTheHostBranchRows) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  for (const char* branch : {"main", "dev"}) {
    add_row(store, branch, "module-a", "module");
    add_row(store, branch, "module-b", "module");
  }
  StoreHost host(store, "main");
  host._retire_pages({"module-a", "module-unknown", "module-a"});
  EXPECT_EQ(ids_of(store.load_pages("main")), (std::vector<std::string>{"module-b"}));
  EXPECT_EQ(ids_of(store.load_pages("dev")), (std::vector<std::string>{"module-a", "module-b"}));
}

TEST_P(PlanRecordInStore, ReplanReplacesUnplannedCodeUnitRowsBySkeletonRows) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  add_row(store, "main", "overview", "overview");
  add_row(store, "main", "module-old", "module");
  add_row(store, "main", "module-kept", "module");
  add_row(store, "main", "module-old-part-1", "part");
  StoreHost host(store, "main");

  host._apply_replan({make_plan({.page_id = "module-kept", .source_files = {"k.py"}}),
                      make_plan({.page_id = "module-new", .source_files = {"n.py"}})});

  const Existing rows = store.load_pages("main");
  EXPECT_EQ(ids_of(rows), (std::vector<std::string>{"overview", "module-kept", "module-new"}));
  // A kept page keeps its row; only the new page gets a skeleton.
  EXPECT_EQ(rows.at("module-kept")["status"], "written");
  EXPECT_EQ(rows.at("module-new")["status"], "stale");
}

KODRUNE_ON_EVERY_BACKEND(PlanRecordInStore);

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

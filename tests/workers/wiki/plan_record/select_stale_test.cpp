// The plan of record's store side: skeleton rows for a first plan (which
// plans get one, the exact row, one transaction per call), which pages a
// build writes, the stale mark on synthesis pages, retiring pages and
// applying a replan. (That a first plan's skeleton pins every page on the
// next build is walked end to end: e2e/race_test.cpp logs one bootstrap
// over many first plans, e2e/plan_series_test.cpp records a family once.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "harness/recording_host.hpp"
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

using kodrune_cli::RecordingHost;
using Ids = std::set<std::string>;

PlanList plans_of(const char* json) { return plans_from_json(Json::parse(json)); }

// The files each `_hashes_with_steering` call was given, in call order.
std::vector<Json> hashed_files(const RecordingHost& host) {
  std::vector<Json> files;
  for (const auto& call : host.calls()) {
    EXPECT_EQ(call["call"], "_hashes_with_steering") << call.dump();
    files.push_back(call["files"]);
  }
  return files;
}

TEST(SelectStale, MappingsCompareByKeyWhereverTheirOrdersPart) {
  // 40 files: more keys out of step than are compared by scanning.
  Json files = Json::object();
  std::vector<std::string> names;
  for (int i = 0; i < 40; ++i) {
    names.push_back("f" + std::to_string(100 + i) + ".py");
    files[names.back()] = "h" + std::to_string(i);
  }
  const auto stored_hashes = [&](bool reversed, const char* changed_file) {
    Json stored = Json::object();
    for (std::size_t i = 0; i < names.size(); ++i) {
      const std::string& name = reversed ? names[names.size() - 1 - i] : names[i];
      stored[name] = name == changed_file ? Json("other") : files[name];
    }
    return stored;
  };
  struct Case {
    const char* name;
    Json stored;
    bool stale;
  };
  const Case cases[] = {
      {"same order", stored_hashes(false, ""), false},
      {"same order, one value changed", stored_hashes(false, "f120.py"), true},
      {"reversed", stored_hashes(true, ""), false},
      {"reversed, one value changed", stored_hashes(true, "f101.py"), true},
      {"in step, then two swapped",
       Json::parse(R"({"a.py": "ha", "c.py": "hc", "b.py": "hb", "d.py": "hd"})"), false},
      {"in step, then two swapped, one changed",
       Json::parse(R"({"a.py": "ha", "c.py": "hc", "b.py": "hX", "d.py": "hd"})"), true},
      {"as many keys, one of them another",
       Json::parse(R"({"a.py": "ha", "c.py": "hc", "e.py": "hb", "d.py": "hd"})"), true},
  };
  for (const auto& c : cases) {
    const bool many = c.stored.size() == names.size();
    Json host_json = {{"files", many ? files : Json::parse(R"({"a.py": "ha", "b.py": "hb",
                                                                  "c.py": "hc", "d.py": "hd"})")}};
    RecordingHost host(host_json);
    Json plan = {{"page_id", "module-p"}, {"source_files", Json::array()}};
    for (auto it = host_json["files"].begin(); it != host_json["files"].end(); ++it) {
      plan["source_files"].push_back(it.key());
    }
    Existing existing;
    existing.emplace("module-p", Json{{"source_hashes", c.stored}});
    EXPECT_EQ(host._select_stale(plans_from_json(Json::array({plan})), existing, false).size(),
              c.stale ? 1u : 0u)
        << c.name;
  }
}

// Row files hashed for a plan without files, a changed steering and an empty
// row are golden cases (store_select_stale).
TEST(SelectStale, PlanWithoutFilesIsHashedOverItsRowFiles) {
  struct Case {
    const char* name;
    const char* host;
    const char* row;
    const char* hashed;
    bool stale;
  };
  const Case cases[] = {
      {"synthesis parent over no file, same steering", R"({"steering_hash": "s1"})",
       R"({"source_files": [], "source_hashes": {"__steering__": "s1"}})", "[]", false},
      {"missing hashes equal an empty current mapping", "{}", R"({"source_files": []})", "[]",
       false},
      {"null files read as none", "{}", R"({"source_files": null, "source_hashes": {}})", "[]",
       false},
      {"null hashes are never equal", "{}", R"({"source_files": [], "source_hashes": null})", "[]",
       true},
      {"missing hashes against steering", R"({"steering_hash": "s1"})", "{}", "[]", true},
  };
  for (const auto& c : cases) {
    RecordingHost host(Json::parse(c.host));
    Existing existing;
    existing.emplace("module-p", Json::parse(c.row));
    const PlanList plans =
        plans_of(R"([{"page_id": "module-p", "children": ["module-p-part-1"]}])");
    EXPECT_EQ(host._select_stale(plans, existing, false).size(), c.stale ? 1u : 0u) << c.name;
    EXPECT_EQ(hashed_files(host), (std::vector<Json>{Json::parse(c.hashed)})) << c.name;
  }
}

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
  const PlanList plans = plans_of(R"([{"page_id": "module-parent", "children": ["x"]},
                                      {"page_id": "module-other", "children": ["y"]}])");
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

TEST_P(PlanRecordInStore, SkeletonRowsReadBackWithListsAndTheStaleMarker) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  StoreHost host(store, "main");
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

TEST_P(PlanRecordInStore, SkeletonFailurePartWayLeavesNoRowOfTheCall) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  store.upsert_wiki_page("main", "overview", "Overview", WikiPageColumns{});
  FailingStore failing(store, 4);
  StoreHost host(failing, "main");
  EXPECT_THROW(host._persist_plan_skeleton(first_plan()), StoreError);
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

// Which pages a build writes, and the stale mark on synthesis pages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "harness/recording_host.hpp"
#include "support/store_backends.hpp"
#include "support/temp_dir.hpp"
#include "workers/wiki/plan_record/store_test_host.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

// Against a real store of each backend.
class MarkSynthesisStaleInStore : public kodrune_test::StoreBackendTest {};

using kodrune_cli::RecordingHost;
using Ids = std::set<std::string>;

PlanList plans_of(const char* json) { return plans_from_json(Json::parse(json)); }

Existing existing_from_rows(const char* json) {
  Existing existing;
  const Json rows = Json::parse(json);
  for (auto it = rows.begin(); it != rows.end(); ++it) existing.emplace(it.key(), it.value());
  return existing;
}

// The files each `_hashes_with_steering` call was given, in call order.
std::vector<Json> hashed_files(const RecordingHost& host) {
  std::vector<Json> files;
  for (const auto& call : host.calls()) {
    EXPECT_EQ(call["call"], "_hashes_with_steering") << call.dump();
    files.push_back(call["files"]);
  }
  return files;
}

TEST(SelectStale, ForcedOrEmptyStoreSelectsEveryPlanWithoutHashing) {
  const char* host_json = R"({"files": {"a.py": "ha"}})";
  const PlanList plans = plans_of(R"([{"page_id": "module-a", "source_files": ["a.py"]},
                                      {"page_id": "overview", "level": "overview"}])");
  const Existing current = existing_from_rows(R"({"module-a": {"source_hashes": {"a.py": "ha"}}})");
  {
    RecordingHost host(Json::parse(host_json));
    EXPECT_EQ(host._select_stale(plans, current, true), (Ids{"module-a", "overview"}));
    EXPECT_EQ(host.calls(), Json::array());
  }
  {
    RecordingHost host(Json::parse(host_json));
    EXPECT_EQ(host._select_stale(plans, Existing{}, false), (Ids{"module-a", "overview"}));
    EXPECT_EQ(host.calls(), Json::array());
  }
  RecordingHost host(Json::parse(host_json));
  EXPECT_EQ(host._select_stale({}, current, false), Ids{});
}

TEST(SelectStale, ComparesStoredHashesWhateverTheirOrderOrStatus) {
  RecordingHost host(Json::parse(
      R"({"files": {"a.py": "ha", "b.py": "hb", "c.py": "hc2"}, "steering_hash": "s1"})"));
  const PlanList plans = plans_of(R"([
      {"page_id": "module-same", "source_files": ["b.py", "a.py", "b.py"]},
      {"page_id": "module-changed", "source_files": ["c.py"]},
      {"page_id": "module-new", "source_files": ["a.py"]},
      {"page_id": "module-same", "source_files": ["b.py", "a.py", "b.py"]}])");
  const Existing existing = existing_from_rows(R"({
      "module-same": {"status": "stale", "source_hashes": {"__steering__": "s1", "b.py": "hb", "a.py": "ha"}},
      "module-changed": {"status": "written", "source_hashes": {"c.py": "hc1", "__steering__": "s1"}}})");
  EXPECT_EQ(host._select_stale(plans, existing, false), (Ids{"module-changed", "module-new"}));
  // One hash mapping per plan with a row; none for the plan without one.
  EXPECT_EQ(hashed_files(host), (std::vector<Json>{Json::parse(R"(["b.py", "a.py", "b.py"])"),
                                                   Json::parse(R"(["c.py"])"),
                                                   Json::parse(R"(["b.py", "a.py", "b.py"])")}));
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

TEST(SelectStale, SkeletonAndMarkedRowsStayStaleUntilSaved) {
  RecordingHost host(Json::parse(R"({"files": {"a.py": "ha"}})"));
  const PlanList plans = plans_of(R"([{"page_id": "module-a", "source_files": ["a.py"]},
                                      {"page_id": "module-parent", "children": ["module-a"]}])");
  const Existing existing = existing_from_rows(R"({
      "module-a": {"source_files": ["a.py"], "source_hashes": {"__stale__": "pending"}},
      "module-parent": {"source_files": [], "source_hashes": {"__stale__": "pending"}}})");
  EXPECT_EQ(host._select_stale(plans, existing, false), (Ids{"module-a", "module-parent"}));
}

TEST(SelectStale, PlanWithoutFilesIsHashedOverItsRowFiles) {
  struct Case {
    const char* name;
    const char* host;
    const char* row;
    const char* hashed;
    bool stale;
  };
  const Case cases[] = {
      {"row files are hashed", R"({"files": {"a.py": "ha", "b.py": "hb"}})",
       R"({"source_files": ["a.py", "b.py"], "source_hashes": {"a.py": "ha", "b.py": "hb"}})",
       R"(["a.py", "b.py"])", false},
      {"synthesis parent over no file, same steering", R"({"steering_hash": "s1"})",
       R"({"source_files": [], "source_hashes": {"__steering__": "s1"}})", "[]", false},
      {"synthesis parent over no file, steering changed", R"({"steering_hash": "s2"})",
       R"({"source_files": [], "source_hashes": {"__steering__": "s1"}})", "[]", true},
      {"missing hashes equal an empty current mapping", "{}", R"({"source_files": []})", "[]",
       false},
      {"an empty row is compared like any other", "{}", "{}", "[]", false},
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

TEST(MarkSynthesisStale, OneStatementOverTheDistinctSortedIds) {
  RecordingHost host(Json::parse(R"({"branch": "main"})"));
  host._mark_synthesis_stale({"b", "a", "b"});
  EXPECT_EQ(
      host.calls().dump(),
      R"j([{"call":"execute","sql":"UPDATE wiki_pages SET source_hashes = ? WHERE branch = ? AND page_id IN (?,?)","params":["{\"__stale__\": \"pending\"}","main","a","b"]}])j");

  RecordingHost idle(Json::parse(R"({"branch": "main"})"));
  idle._mark_synthesis_stale({});
  EXPECT_EQ(idle.calls(), Json::array());
}

TEST_P(MarkSynthesisStaleInStore, MarksOnlyTheHostBranchAndMarkedPagesAreSelected) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  WikiPageColumns saved;
  saved.status = "written";
  saved.source_hashes = Json::object();
  for (const char* branch : {"main", "dev"}) {
    store.upsert_wiki_page(branch, "module-parent", "Parent", saved);
    store.upsert_wiki_page(branch, "module-other", "Other", saved);
  }
  kodrune_test::StoreHost host(store, "main");
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

KODRUNE_ON_EVERY_BACKEND(MarkSynthesisStaleInStore);

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

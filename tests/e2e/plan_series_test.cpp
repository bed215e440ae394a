// kodrune-wiki walked through a repository's history: each test commits a
// change and checks what the next builds plan, record and report. (A first
// plan, saves, new units, the drift warning and a replan are walked by the
// SDK client's session in tests/mcp; a first plan's rows are golden.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "e2e/repo_fixture.hpp"
#include "support/store_backends.hpp"

namespace kodrune_e2e {
namespace {

using ::testing::HasSubstr;

using Strings = std::vector<std::string>;

// Each series runs on the default SQLite store and on a PostgreSQL one.
class PlanSeries : public kodrune_test::StoreBackendTest {
 protected:
  std::string e2e_store() const { return postgres() ? postgres_uri_ : ""; }
};

// Three units: src (3 files), lib (2 files) and a README that is no code.
void seed(GitRepo& repo) {
  repo.write_unit("src", 3);
  repo.write_unit("lib", 2);
  repo.write("README.md", "# demo\n");
  repo.commit("seed");
}

// Saves every planned page with a body citing the first line of `cited`.
void save_all(GitRepo& repo, const Json& plan, const std::string& cited = "src/f01.cpp") {
  for (const auto& id : plan_ids(plan)) {
    const RunResult saved =
        repo.save(id, "Lead.\n\n## Uses\n\nSee [it](" + cited + "#L1-L2).\n\n## Other\n\nNone.\n");
    ASSERT_EQ(saved.code, 0) << id << ": " << saved.err;
  }
}

TEST_P(PlanSeries, GrownFolderBecomesFamilyAndCollapsesBackWithPartsRetired) {
  GitRepo repo;
  repo.use_store(e2e_store());
  seed(repo);
  save_all(repo, repo.plan());

  repo.write_unit("src", 14, 4);  // 17 files
  repo.commit("grow");
  const Json grown = repo.plan();
  EXPECT_EQ(plan_ids(grown), (Strings{"overview", "module-src", "module-src-part-f01",
                                      "module-src-part-f07", "module-lib"}));
  EXPECT_EQ(plan_of(grown, "module-src").at("children"),
            Json::parse(R"(["module-src-part-f01", "module-src-part-f07"])"));
  EXPECT_EQ(plan_of(grown, "module-src-part-f07").at("source_files").size(), 11u);
  EXPECT_EQ(amendment_lines(grown),
            (Strings{"add module-src-part-f01", "add module-src-part-f07"}));
  auto rows = repo.rows();
  EXPECT_EQ(rows.at("module-src").at("related_pages"),
            Json::parse(R"(["module-src-part-f01", "module-src-part-f07"])"));
  EXPECT_TRUE(rows.at("module-src").at("source_files").empty());
  // The family is recorded once.
  EXPECT_TRUE(repo.plan().at("amendments").empty());
  ASSERT_EQ(repo.save("module-src-part-f01", "Part one.\n").code, 0);

  for (int i = 4; i <= 17; ++i)
    repo.remove("src/f" + std::string(i < 10 ? "0" : "") + std::to_string(i) + ".cpp");
  repo.commit("shrink");
  const Json shrunk = repo.plan();
  EXPECT_EQ(plan_ids(shrunk), (Strings{"overview", "module-src", "module-lib"}));
  EXPECT_EQ(amendment_lines(shrunk),
            (Strings{"retire module-src-part-f01", "retire module-src-part-f07"}));
  EXPECT_EQ(shrunk.at("remap").at("merged"),
            Json::parse(R"({"module-src": ["module-src-part-f01", "module-src-part-f07"]})"));
  rows = repo.rows();
  EXPECT_EQ(rows.count("module-src-part-f01"), 0u);
  EXPECT_TRUE(rows.at("module-src").at("related_pages").empty());
  EXPECT_EQ(rows.at("module-src").at("source_files").size(), 3u);

  const Json after = repo.plan();
  EXPECT_EQ(plan_ids(after), (Strings{"overview", "module-src", "module-lib"}));
  EXPECT_TRUE(after.at("amendments").empty());
  EXPECT_TRUE(plan_of(after, "module-src").at("children").empty());
}

TEST_P(PlanSeries, StoreOfPositionalPartsReChunksOnceWithProseCarried) {
  GitRepo repo;
  repo.use_store(e2e_store());
  repo.write_unit("src", 17);
  repo.write_unit("lib", 2);
  repo.commit("seed");
  // The plan of record an earlier planner made: src cut by position into
  // "module-src-part-1" (f01 to f12) and "module-src-part-2" (f13 to f17).
  {
    namespace wiki = zenthar_kodrune::workers::wiki;
    const auto owned = repo.store();
    wiki::WikiStore& store = *owned;
    const auto files = [](const std::string& folder, int from, int to) {
      std::vector<std::string> out;
      for (int i = from; i <= to; ++i) {
        out.push_back(folder + "/f" + (i < 10 ? "0" : "") + std::to_string(i) + ".cpp");
      }
      return out;
    };
    const auto row = [&](const std::string& id, const std::string& level,
                         std::vector<std::string> source_files, std::vector<std::string> related) {
      wiki::WikiPageColumns columns;
      columns.level = level;
      columns.rel_path = "pages/" + id + ".md";
      columns.source_files = std::move(source_files);
      columns.related_pages = std::move(related);
      columns.source_hashes = Json::parse(R"({"__stale__": "pending"})");
      columns.status = "stale";
      store.upsert_wiki_page("main", id, id, columns);
    };
    row("overview", "overview", {}, {});
    row("module-lib", "module", files("lib", 1, 2), {});
    row("module-src", "module", {}, {"module-src-part-1", "module-src-part-2"});
    row("module-src-part-1", "part", files("src", 1, 12), {});
    row("module-src-part-2", "part", files("src", 13, 17), {});
  }

  const Json upgraded = repo.plan();
  EXPECT_EQ(plan_of(upgraded, "module-src").at("children"),
            Json::parse(R"(["module-src-part-f01", "module-src-part-f07"])"));
  EXPECT_EQ(amendment_lines(upgraded),
            (Strings{"retire module-src-part-1", "retire module-src-part-2",
                     "add module-src-part-f01", "add module-src-part-f07"}));
  EXPECT_EQ(upgraded.at("remap").at("merged"), Json::parse(R"({
    "module-src-part-f01": ["module-src-part-1"], "module-src-part-f07": ["module-src-part-2"]})"));
  const auto rows = repo.rows();
  EXPECT_EQ(rows.count("module-src-part-1"), 0u);
  EXPECT_EQ(rows.at("module-src").at("related_pages"),
            Json::parse(R"(["module-src-part-f01", "module-src-part-f07"])"));
  // Once: the next build pins the new parts.
  EXPECT_TRUE(repo.plan().at("amendments").empty());
}

TEST_P(PlanSeries, EditedFileStalesItsPageAndDeletedFolderRetiresItsPage) {
  GitRepo repo;
  repo.use_store(e2e_store());
  seed(repo);
  save_all(repo, repo.plan());
  const Json saved = repo.rows().at("module-src");
  EXPECT_EQ(saved.at("status"), "fresh");
  EXPECT_EQ(saved.at("build_cache").at("citations"),
            Json::parse(R"([{"path": "src/f01.cpp", "line_start": 1, "line_end": 2}])"));
  repo.write("src/f01.cpp", "int changed() { return 0; }\n");
  repo.remove("lib");
  repo.commit("edit, drop lib");

  const Json plan = repo.plan();
  EXPECT_EQ(plan_ids(plan), (Strings{"overview", "module-src"}));
  EXPECT_EQ(plan.at("stale"), Json::parse(R"(["module-src"])"));
  EXPECT_EQ(plan.at("why").at("module-src"),
            "cited lines changed: src/f01.cpp L1-L2; files changed: src/f01.cpp");
  EXPECT_EQ(amendment_lines(plan), (Strings{"retire module-lib"}));
  EXPECT_EQ(repo.rows().count("module-lib"), 0u);
  // The text form of the changes (the JSON form is the SDK session's).
  const RunResult text = repo.run("changes module-src");
  EXPECT_THAT(text.out, HasSubstr("modified: src/f01.cpp"));
  EXPECT_THAT(text.out, HasSubstr("stale sections: \"Uses\""));
}

TEST_P(PlanSeries, DriftWarningIsFollowedByTheCommandLinesOwnReplan) {
  GitRepo repo;
  repo.use_store(e2e_store());
  seed(repo);
  repo.plan();
  for (const char* unit : {"alpha", "beta", "gamma"}) repo.write_unit(unit, 3);
  repo.commit("three new units");

  const RunResult text = repo.run("plan");
  ASSERT_EQ(text.code, 0) << text.err;
  const std::string warning =
      "Warning: 3 structural amendments against a 6-page plan \u2014 the pinned structure is "
      "churning; consider a full replan (wiki(action=\"generate\", replan=true) or "
      "/kodrune-wiki --replan).\nFrom the command line: kodrune-wiki plan --replan\n";
  EXPECT_THAT(text.out, HasSubstr(warning));
  // The JSON form carries the warning's own text alone.
  repo.write_unit("delta", 3);
  repo.write_unit("epsilon", 3);
  repo.write_unit("zeta", 3);
  repo.commit("three more");
  const Json plan = repo.plan();
  EXPECT_EQ(plan.at("drift"),
            "3 structural amendments against a 9-page plan \u2014 the pinned structure is "
            "churning; consider a full replan (wiki(action=\"generate\", replan=true) or "
            "/kodrune-wiki --replan).");
}

// The answers of one `kodrune-wiki rpc` process to `requests`, one a line
// (a request's own line breaks are sent as spaces).
std::vector<Json> rpc(const GitRepo& repo, const std::vector<std::string>& requests) {
  std::string lines;
  for (std::string request : requests) {
    std::replace(request.begin(), request.end(), '\n', ' ');
    lines += request + "\n";
  }
  const RunResult result = repo.run("rpc < " + repo.scratch_file(lines, "requests.jsonl"));
  EXPECT_EQ(result.code, 0) << result.err;
  std::vector<Json> answers;
  std::istringstream in(result.out);
  for (std::string line; std::getline(in, line);) answers.push_back(Json::parse(line));
  EXPECT_EQ(answers.size(), requests.size()) << result.out;
  answers.resize(requests.size());
  return answers;
}

TEST_P(PlanSeries, FamilyAtTheThresholdFormsOnceAndAReplanLetsTheFilesDecide) {
  GitRepo repo;
  repo.use_store(e2e_store());
  repo.write_unit("src", 16);
  repo.commit("sixteen");
  EXPECT_EQ(plan_ids(repo.plan()), (Strings{"overview", "module-src"}));
  repo.write_unit("src", 1, 17);
  repo.commit("seventeen");
  const Json formed = repo.plan();
  EXPECT_EQ(amendment_lines(formed),
            (Strings{"add module-src-part-f01", "add module-src-part-f07"}));
  // 16, 17, 16: the family the store holds stays, and nothing is amended.
  for (int round = 0; round < 2; ++round) {
    repo.remove("src/f17.cpp");
    repo.commit("sixteen again");
    const Json sixteen = repo.plan();
    EXPECT_EQ(plan_ids(sixteen), plan_ids(formed)) << round;
    EXPECT_TRUE(sixteen.at("amendments").empty()) << round;
    repo.write_unit("src", 1, 17);
    repo.commit("seventeen again");
    EXPECT_TRUE(repo.plan().at("amendments").empty()) << round;
  }
  // Every derivation plans against the record alike: the rpc's derived plan
  // finds nothing to write once the family's pages are saved.
  repo.remove("src/f17.cpp");
  repo.commit("sixteen, saved");
  for (const auto& id : plan_ids(repo.plan())) {
    ASSERT_EQ(repo.save(id, "Text.\n").code, 0) << id;
  }
  EXPECT_EQ(rpc(repo, {R"({"id": 1, "op": "select_stale", "args": {}})"})[0].at("result"),
            Json::parse(R"({"stale": []})"));

  const Json replanned = repo.plan("--replan");
  EXPECT_EQ(plan_ids(replanned), (Strings{"overview", "module-src"}));
  EXPECT_EQ(repo.rows().at("module-src").at("source_files").size(), 16u);
}

TEST_P(PlanSeries, RpcStoreOpsActOnTheBranchStore) {
  GitRepo repo;
  repo.use_store(e2e_store());
  seed(repo);
  const Json first = repo.plan();
  EXPECT_EQ(rpc(repo, {R"({"id": 1, "op": "select_stale", "args": {}})"})[0].at("result"),
            Json::parse(R"({"stale": ["module-lib", "module-src", "overview"]})"));
  save_all(repo, first);
  repo.write("src/f01.cpp", "int changed() { return 0; }\n");
  repo.commit("edit");

  // One process: each request sees what the ones before it wrote.
  const auto answers = rpc(
      repo,
      {R"({"id": 1, "op": "select_stale", "args": {}})",
       R"({"id": 2, "op": "page_changes", "args": {"page_ids": ["module-src"]}})",
       R"({"id": 3, "op": "mark_synthesis_stale", "args": {"page_ids": ["module-lib", "nope"]}})",
       R"({"id": 4, "op": "select_stale", "args": {}})",
       R"({"id": 5, "op": "section_cache", "args": {"body": "## A\n\nx", "citations": [
            {"path": "src/f02.cpp", "line_start": 1, "line_end": 2}]}})",
       R"({"id": 6, "op": "persist_plan_skeleton", "args": {"plans": [
            {"page_id": "module-extra", "source_files": ["lib/f01.cpp"]},
            {"page_id": "module-src", "source_files": ["lib/f01.cpp"]}]}})",
       R"({"id": 7, "op": "persist_plan_skeleton", "args": {"plans": [
            {"page_id": "../../escape", "source_files": ["lib/f01.cpp"]}]}})",
       R"({"id": 8, "op": "append_plan_log", "args": {"amendments": [
            {"action": "add", "page_id": "module-extra", "reason": "by hand"}]}})",
       R"({"id": 9, "op": "_select_stale", "args": {"host": {}}})"});
  EXPECT_EQ(answers[0].at("result"), Json::parse(R"({"stale": ["module-src"]})"));
  EXPECT_EQ(answers[1].at("result"), Json::parse(R"({"changes": {"module-src": {
    "changed_files": {"added": [], "removed": [], "modified": ["src/f01.cpp"]},
    "stale_sections": ["Uses"]}}})"));
  EXPECT_EQ(answers[2].at("result"), Json::parse(R"({"marked": 1})"));
  EXPECT_EQ(answers[3].at("result"), Json::parse(R"({"stale": ["module-lib", "module-src"]})"));
  // The file's hash as the store recorded it when the page was saved.
  EXPECT_EQ(answers[4].at("result").at("cache").at("file_hashes"),
            Json::object({{"src/f02.cpp",
                           repo.rows().at("module-src").at("source_hashes").at("src/f02.cpp")}}));
  EXPECT_EQ(answers[5].at("result"), Json::parse(R"({"count": 1})"));
  EXPECT_EQ(answers[6].at("error").at("kind"), "value_error") << answers[6];
  EXPECT_EQ(answers[8].at("error").at("kind"), "invalid_request") << answers[8];

  const auto rows = repo.rows();
  EXPECT_EQ(rows.at("module-extra").at("status"), "stale");
  EXPECT_EQ(rows.at("module-src").at("status"), "fresh");
  EXPECT_EQ(rows.size(), 4u);
  const RunResult log = repo.run("log --json");
  ASSERT_EQ(log.code, 0) << log.err;
  ASSERT_EQ(log.json().size(), 2u);
  EXPECT_EQ(log.json().at(1).at("amendments").at(0).at("reason"), "by hand");
  EXPECT_EQ(answers[7].at("result").at("log"),
            slurp(repo.root() / "memory/orvane/main/plan-log.jsonl"));
  EXPECT_TRUE(answers[7].at("result").at("warnings").empty());
}

KODRUNE_ON_EVERY_BACKEND(PlanSeries);

}  // namespace
}  // namespace kodrune_e2e

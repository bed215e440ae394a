// What `changes`, `plan` and `reanchor` say of a page's cited line ranges once
// the code under them moved, changed or went away, through the real binary.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "e2e/repo_fixture.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace kodrune_e2e {
namespace {

using ::testing::HasSubstr;

namespace wiki = zenthar_kodrune::workers::wiki;

// `count` numbered lines "<stem> line N".
std::string numbered(const std::string& stem, int count) {
  std::string out;
  for (int i = 1; i <= count; ++i) out += stem + " line " + std::to_string(i) + "\n";
  return out;
}

const char* const kDuplicated =
    "int first();\n"
    "  if (!p) {\n"
    "    return -1;\n"
    "  }\n"
    "int second();\n"
    "  if (!p) {\n"
    "    return -1;\n"
    "  }\n"
    "int third();\n";

const char* const kBody =
    "# src\n\n"
    "## Moved\n\n[a](src/a.cpp#L5-L8) and [one line](src/a.cpp#L15).\n\n"
    "## Edited\n\n[b](src/b.cpp#L3-L5)\n\n"
    "## Duplicate\n\n[the second check](src/dup.cpp#L6-L8)\n\n"
    "## Gone\n\n[g](src/gone.cpp#L1-L2)\n\n"
    "## Untouched\n\n[c](src/c.cpp#L1-L2)\n";

void seed(GitRepo& repo) {
  repo.write("src/a.cpp", numbered("a", 20));
  repo.write("src/b.cpp", numbered("b", 10));
  repo.write("src/c.cpp", numbered("c", 4));
  repo.write("src/dup.cpp", kDuplicated);
  repo.write("src/gone.cpp", numbered("g", 3));
  repo.commit("seed");
  repo.plan();
  const RunResult saved = repo.save("module-src", kBody);
  ASSERT_EQ(saved.code, 0) << saved.err;
  ASSERT_NE(saved.out.find("(6 citations stored)"), std::string::npos) << saved.out;
}

// Three lines above everything cited in a.cpp and dup.cpp; an edit inside
// b.cpp's range; gone.cpp removed.
void edit(GitRepo& repo) {
  repo.write("src/a.cpp", "new 1\nnew 2\nnew 3\n" + numbered("a", 20));
  std::string b = numbered("b", 10);
  b.replace(b.find("b line 4"), 8, "b line 4 edited");
  repo.write("src/b.cpp", b);
  // The cited second copy moves up with its neighbours; the other copy, now
  // nearer its old place, has others.
  repo.write("src/dup.cpp",
             "int second();\n  if (!p) {\n    return -1;\n  }\nint third();\n"
             "int other();\n  if (!p) {\n    return -1;\n  }\nint end();\n");
  repo.remove("src/gone.cpp");
  repo.commit("edit");
}

Json cited(const char* section, const char* path, int start, int end, const char* state, Json now) {
  return {{"section", section}, {"path", path},   {"line_start", start},
          {"line_end", end},    {"state", state}, {"now", std::move(now)}};
}

Json range(int start, int end) { return {{"line_start", start}, {"line_end", end}}; }

TEST(PreciseStaleness, ChangesJudgeEachCitedRange) {
  GitRepo repo;
  seed(repo);
  edit(repo);
  const RunResult json = repo.run("changes --json module-src");
  ASSERT_EQ(json.code, 0) << json.err;
  const Json page = json.json().at("module-src");
  EXPECT_EQ(page.at("changed_files").at("modified"),
            Json::parse(R"(["src/a.cpp", "src/b.cpp", "src/dup.cpp"])"));
  EXPECT_EQ(page.at("changed_files").at("removed"), Json::parse(R"(["src/gone.cpp"])"));
  // The component's file rule, kept as it was.
  EXPECT_EQ(page.at("stale_sections"), Json::parse(R"(["Moved", "Edited", "Duplicate", "Gone"])"));
  EXPECT_EQ(page.at("changed_sections"), Json::parse(R"(["Edited", "Gone"])"));
  const Json expected = Json::array({
      cited("Moved", "src/a.cpp", 5, 8, "moved", range(8, 11)),
      cited("Moved", "src/a.cpp", 15, 15, "moved", range(18, 18)),
      cited("Edited", "src/b.cpp", 3, 5, "changed", nullptr),
      cited("Duplicate", "src/dup.cpp", 6, 8, "moved", range(2, 4)),
      cited("Gone", "src/gone.cpp", 1, 2, "gone", nullptr),
      cited("Untouched", "src/c.cpp", 1, 2, "intact", range(1, 2)),
  });
  EXPECT_EQ(page.at("citations"), expected) << page.at("citations").dump(1);

  const RunResult text = repo.run("changes module-src");
  ASSERT_EQ(text.code, 0) << text.err;
  for (const char* line :
       {"  changed sections: \"Edited\" \"Gone\"\n", "  cited ranges: 6 (1 intact)\n",
        "    src/a.cpp L5-L8: moved to L8-L11 (in \"Moved\")\n",
        "    src/b.cpp L3-L5: changed (in \"Edited\")\n",
        "    src/gone.cpp L1-L2: gone (in \"Gone\")\n"}) {
    EXPECT_THAT(text.out, HasSubstr(line)) << line << "\n" << text.out;
  }
  EXPECT_EQ(repo.plan().at("why").at("module-src"),
            "cited lines changed: src/b.cpp L3-L5; cited lines gone: src/gone.cpp L1-L2; files "
            "changed: src/a.cpp, src/b.cpp, src/dup.cpp and 1 more");
}

TEST(PreciseStaleness, ReanchorRefusesChangedCitationsAndFollowsMovedOnes) {
  GitRepo repo;
  seed(repo);
  edit(repo);
  const std::string before = slurp(repo.root() / "memory/orvane/main/pages/module-src.md");
  const RunResult refused = repo.run("reanchor module-src");
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.err,
              HasSubstr("module-src: cited lines changed: src/b.cpp L3-L5; cited lines "
                        "gone: src/gone.cpp L1-L2"));
  EXPECT_EQ(slurp(repo.root() / "memory/orvane/main/pages/module-src.md"), before);
  // Nothing to re-anchor unless named: the page needs its prose written.
  EXPECT_EQ(repo.run("reanchor").out, "no page only needs re-anchoring\n");

  // Put back what was changed and removed: every citation is now intact or moved.
  repo.write("src/b.cpp", numbered("b", 10));
  repo.write("src/gone.cpp", numbered("g", 3));
  repo.commit("restore");
  const Json plan = repo.plan();
  EXPECT_EQ(plan.at("why").at("module-src"),
            "files changed: src/a.cpp, src/dup.cpp; cited lines moved: src/a.cpp L5-L8 to "
            "L8-L11, src/a.cpp L15 to L18, src/dup.cpp L6-L8 to L2-L4; reanchor suffices");
  const RunResult done = repo.run("reanchor");
  ASSERT_EQ(done.code, 0) << done.err;
  EXPECT_EQ(done.out,
            "reanchored module-src\n  src/a.cpp L5-L8 to L8-L11\n  src/a.cpp L15 to L18\n"
            "  src/dup.cpp L6-L8 to L2-L4\n");
  const std::string body = slurp(repo.root() / "memory/orvane/main/pages/module-src.md");
  EXPECT_THAT(body, HasSubstr("[a](src/a.cpp#L8-L11) and [one line](src/a.cpp#L18)."));
  EXPECT_THAT(body, HasSubstr("[the second check](src/dup.cpp#L2-L4)"));
  EXPECT_THAT(body, HasSubstr("[b](src/b.cpp#L3-L5)"));

  // Recorded anew: fresh, every range intact where it now stands.
  EXPECT_EQ(repo.plan().at("stale"), Json::parse(R"(["overview"])"));
  const Json page = repo.run("changes --json module-src").json().at("module-src");
  for (const auto& citation : page.at("citations")) EXPECT_EQ(citation.at("state"), "intact");
  EXPECT_EQ(page.at("citations").at(0).at("line_start"), 8);
  EXPECT_EQ(repo.rows().at("module-src").at("build_cache").at("citations").at(0),
            Json::parse(R"({"path": "src/a.cpp", "line_start": 8, "line_end": 11})"));
}

TEST(PreciseStaleness, PageSavedBeforeFingerprintsKeepsTheFileRule) {
  GitRepo repo;
  seed(repo);
  {
    // The row as an older version saved it: a build cache without fingerprints.
    const auto rows = repo.rows();
    Json cache = rows.at("module-src").at("build_cache");
    ASSERT_TRUE(cache.contains("fingerprints"));
    cache.erase("fingerprints");
    wiki::SqliteWikiStore store(wiki::SqliteWikiStore::default_path(repo.root()));
    store.db().execute("UPDATE wiki_pages SET build_cache = ? WHERE page_id = ?",
                       {cache.dump(), std::string("module-src")});
  }
  edit(repo);
  const Json page = repo.run("changes --json module-src").json().at("module-src");
  EXPECT_EQ(page.at("changed_sections"), page.at("stale_sections"));
  EXPECT_EQ(page.at("citations").at(0), cited("Moved", "src/a.cpp", 5, 8, "changed", nullptr));
  EXPECT_EQ(page.at("citations").at(4), cited("Gone", "src/gone.cpp", 1, 2, "gone", nullptr));
  EXPECT_EQ(page.at("citations").at(5),
            cited("Untouched", "src/c.cpp", 1, 2, "intact", range(1, 2)));
  EXPECT_EQ(repo.plan().at("why").at("module-src"),
            "files changed: src/a.cpp, src/b.cpp, src/dup.cpp and 1 more");
  const RunResult refused = repo.run("reanchor module-src");
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.err, HasSubstr("saved before its cited lines were fingerprinted"));
}

// The MCP server's answers to `calls` (tool name, arguments), after the
// initialize handshake, in order.
std::vector<Json> mcp_calls(const GitRepo& repo,
                            const std::vector<std::pair<std::string, Json>>& calls) {
  std::string lines =
      R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":"2025-11-25",)"
      R"("capabilities":{},"clientInfo":{"name":"test","version":"1"}}})"
      "\n";
  for (std::size_t i = 0; i < calls.size(); ++i) {
    Json message = {{"jsonrpc", "2.0"}, {"id", i + 1}, {"method", "tools/call"}};
    message["params"] = {{"name", calls[i].first}, {"arguments", calls[i].second}};
    lines += message.dump() + "\n";
  }
  const RunResult run = repo.run("mcp < " + repo.scratch_file(lines, "mcp.jsonl"));
  EXPECT_EQ(run.code, 0) << run.err;
  std::vector<Json> answers(calls.size());
  std::istringstream out(run.out);
  for (std::string line; std::getline(out, line);) {
    const Json message = Json::parse(line);
    const std::size_t id = message.value("id", 0u);
    if (id >= 1 && id <= calls.size()) answers[id - 1] = message.at("result");
  }
  return answers;
}

TEST(PreciseStaleness, McpToolsSayTheSameAndRefuseToReanchorChangedProse) {
  GitRepo repo;
  seed(repo);
  edit(repo);
  const auto answers = mcp_calls(repo, {{"changes", {{"page_ids", {"module-src"}}}},
                                        {"wiki", {{"action", "status"}}},
                                        {"reanchor", {{"page_ids", {"module-src"}}}}});
  const Json& page = answers[0].at("structuredContent").at("changes").at("module-src");
  EXPECT_EQ(page.at("changed_sections"), Json::parse(R"(["Edited", "Gone"])"));
  EXPECT_EQ(page.at("citations").at(3),
            cited("Duplicate", "src/dup.cpp", 6, 8, "moved", range(2, 4)));
  EXPECT_EQ(page.at("citations").at(4), cited("Gone", "src/gone.cpp", 1, 2, "gone", nullptr));
  // The page whose cited code changed comes before the page never written.
  const Json& work = answers[1].at("structuredContent").at("pages");
  ASSERT_EQ(work.size(), 2u) << work.dump();
  EXPECT_EQ(work[0].at("page_id"), "module-src");
  EXPECT_EQ(work[0].at("reanchor"), false);
  EXPECT_EQ(work[1].at("page_id"), "overview");
  EXPECT_EQ(answers[2].value("isError", false), true);
  EXPECT_NE(answers[2].at("content").at(0).at("text").get<std::string>().find(
                "cited lines gone: src/gone.cpp L1-L2"),
            std::string::npos)
      << answers[2];
}

}  // namespace
}  // namespace kodrune_e2e

// kodrune-wiki refuses bad input with one clear line and the right exit code,
// and never loses or changes stored data doing so.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "e2e/repo_fixture.hpp"
#include "workers/wiki/util/repo_facts.hpp"

namespace kodrune_e2e {
namespace {

using ::testing::HasSubstr;

using zenthar_kodrune::workers::wiki::util::_text_hash;

TEST(BadInput, RefusedBranchNamesAreUsageErrorsNamingTheRule) {
  GitRepo repo;
  repo.seed_src();
  const std::pair<std::string, std::string> cases[] = {
      // What git refuses.
      {"../escape", "\"..\""},
      {"/abs", "begins with \"/\""},
      {"-x", "begins with \"-\""},
      {"a@{b", "\"@{\""},
      {"x.lock", "\".lock\""},
      {"a//b", "empty path component"},
      {"a b", "space"},
      {"a:b", "\":\""},
      {"a~1", "\"~\""},
      {"tab\tname", "control character"},
      // Wiki folders that would overlap the store's or another branch's files.
      {"wiki.db-journal", "overlap memory/orvane/wiki.db-journal"},
      {"wiki.db", "overlap memory/orvane/wiki.db"},
      {"steering.md", "overlap memory/orvane/steering.md"},
      {"main/pages", "overlap another branch's pages"},
      {"main/plan-log.jsonl", "overlap another branch's plan-log.jsonl"},
      {std::string(5000, 'a'), "5000 bytes"},
      {"a/" + std::string(300, 'b'), "longer than 255 bytes"},
  };
  for (const auto& [branch, rule] : cases) {
    const RunResult result = repo.run("plan --branch " + quoted(branch));
    EXPECT_EQ(result.code, 2) << branch.substr(0, 40);
    EXPECT_EQ(result.err.rfind("kodrune-wiki: error: invalid branch name", 0), 0u) << result.err;
    EXPECT_THAT(result.err, HasSubstr(rule)) << result.err.substr(0, 200);
  }
  EXPECT_FALSE(fs::exists(repo.root() / "escape"));
  EXPECT_FALSE(fs::exists(repo.root() / "memory/orvane/.store/wiki.db"));
  EXPECT_FALSE(fs::exists(repo.root() / "memory/orvane/wiki.db-journal"));
  // Slashes name nested wiki folders, beside a branch's own files.
  EXPECT_EQ(repo.run("plan").code, 0);
  EXPECT_EQ(repo.plan("--branch main/x").at("branch"), "main/x");
  EXPECT_TRUE(fs::exists(repo.root() / "memory/orvane/main/x/plan-log.jsonl"));
  EXPECT_FALSE(fs::exists(repo.root() / "memory/orvane/main/pages/x"));
}

TEST(BadInput, SaveAndChangesRefuseBadInputAndChangeNothing) {
  GitRepo repo;
  repo.seed_src();
  // Refused before anything is written: a first save records no plan.
  EXPECT_EQ(repo.run("save module-src /nonexistent/body.md").code, 1);
  EXPECT_FALSE(fs::exists(repo.root() / "memory/orvane/.store/wiki.db"));

  ASSERT_EQ(repo.save("module-src", "Kept.\n").code, 0);
  const std::string body = repo.scratch_file("New.\n");
  const std::string citations = repo.scratch_file("[{\"path\": ", "citations.json");
  const std::string deep =
      repo.scratch_file(std::string(100000, '[') + std::string(100000, ']'), "deep.json");
  const std::pair<std::string, std::string> cases[] = {
      {"save module-src /nonexistent/body.md", "cannot read body file /nonexistent/body.md"},
      {"save module-src " + quoted(repo.scratch().string()), "not a regular file"},
      {"save module-src /dev/null", "not a regular file"},
      {"save module-src " + body + " --citations " + citations,
       "citations file " + citations.substr(1, citations.size() - 2) + " is not JSON"},
      {"save module-src " + body + " --citations " + deep, "deeper than 512"},
      {"save module-nope " + body,
       "page id \"module-nope\" is not in the current plan of branch main"},
      {"changes ../../etc", "\"../../etc\""},
  };
  for (const auto& [command, reason] : cases) {
    const RunResult result = repo.run(command);
    EXPECT_EQ(result.code, 1) << command;
    EXPECT_EQ(result.err.rfind("kodrune-wiki: error: ", 0), 0u) << result.err;
    EXPECT_THAT(result.err, HasSubstr(reason));
  }
  EXPECT_EQ(slurp(repo.root() / "memory/orvane/main/pages/module-src.md"), "Kept.\n");
  EXPECT_EQ(repo.rows().at("module-src")["content_hash"], _text_hash("Kept.\n"));
  EXPECT_EQ(repo.rows().count("module-nope"), 0u);
}

TEST(BadInput, CorruptDatabaseIsReportedAndLeftAsItWas) {
  GitRepo repo;
  repo.seed_src();
  const std::string garbage = "this is not an SQLite database\n" + std::string(5000, 'x');
  repo.write("memory/orvane/.store/wiki.db", garbage);
  for (const std::string& command :
       std::vector<std::string>{"plan", "changes", "save module-src " + repo.scratch_file("B")}) {
    const RunResult result = repo.run(command);
    EXPECT_EQ(result.code, 1) << command;
    EXPECT_EQ(result.err.rfind("kodrune-wiki: error: ", 0), 0u) << result.err;
    EXPECT_THAT(result.err, HasSubstr("wiki.db"));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
  EXPECT_EQ(slurp(repo.root() / "memory/orvane/.store/wiki.db"), garbage);
  EXPECT_FALSE(fs::exists(repo.root() / "memory/orvane/main/plan-log.jsonl"));
}

TEST(BadInput, UnknownOptionsAndMissingArgumentsAreUsageErrors) {
  GitRepo repo;
  repo.seed_src();
  for (const std::string command :
       {"plan --bogus", "save", "save module-src", "log --limit x", "frobnicate",
        "rpc --repo /nonexistent-kodrune </dev/null", "rpc --branch a..b </dev/null"}) {
    const RunResult result = repo.run(command);
    EXPECT_EQ(result.code, 2) << command;
    EXPECT_EQ(result.err.rfind("kodrune-wiki: error: ", 0), 0u) << command << ": " << result.err;
  }
  const RunResult help = repo.run("plan --help");
  EXPECT_EQ(help.code, 0);
  EXPECT_THAT(help.out, HasSubstr("--replan"));
}

}  // namespace
}  // namespace kodrune_e2e

// kodrune-wiki refuses bad input with one clear line and the right exit code,
// and never loses or changes stored data doing so.
#include <gtest/gtest.h>

#include "e2e/repo_fixture.hpp"

namespace kodrune_e2e {
namespace {

void seed(GitRepo& repo) {
  repo.write_unit("src", 3);
  repo.commit("seed");
}

TEST(BadInput, BranchNamesGitRefusesAreUsageErrors) {
  GitRepo repo;
  seed(repo);
  const std::pair<std::string, std::string> cases[] = {
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
  };
  for (const auto& [branch, rule] : cases) {
    const RunResult result = repo.run("plan --branch " + quoted(branch));
    EXPECT_EQ(result.code, 2) << branch;
    EXPECT_EQ(result.err.rfind("kodrune-wiki: error: invalid branch name", 0), 0u) << result.err;
    EXPECT_NE(result.err.find(rule), std::string::npos) << branch << ": " << result.err;
  }
  EXPECT_FALSE(fs::exists(repo.root() / "escape"));
  EXPECT_FALSE(fs::exists(repo.root() / "memory/orvane/.store/wiki.db"));
}

TEST(BadInput, BranchWithSlashesNamesNestedWikiFolder) {
  GitRepo repo;
  seed(repo);
  EXPECT_EQ(repo.plan("--branch feature/x").at("branch"), "feature/x");
  EXPECT_TRUE(fs::exists(repo.root() / "memory/orvane/feature/x/plan-log.jsonl"));
}

TEST(BadInput, MissingBodyFileFailsBeforeAnythingIsWritten) {
  GitRepo repo;
  seed(repo);
  const RunResult result = repo.run("save module-src /nonexistent/body.md");
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(result.err.rfind("kodrune-wiki: error: cannot read body file /nonexistent/body.md", 0),
            0u)
      << result.err;
  EXPECT_FALSE(fs::exists(repo.root() / "memory/orvane/.store/wiki.db"));
}

TEST(BadInput, SavingAPageOutsideThePlanIsAnErrorNamingIt) {
  GitRepo repo;
  seed(repo);
  repo.plan();
  const RunResult result = repo.save("module-nope", "Body.\n");
  EXPECT_EQ(result.code, 1);
  EXPECT_NE(result.err.find("page id \"module-nope\" is not in the current plan of branch main"),
            std::string::npos)
      << result.err;
  EXPECT_EQ(repo.rows().count("module-nope"), 0u);
  const RunResult changes = repo.run("changes ../../etc");
  EXPECT_EQ(changes.code, 1);
  EXPECT_NE(changes.err.find("\"../../etc\""), std::string::npos) << changes.err;
}

TEST(BadInput, CitationsFileThatIsNotJsonIsRefused) {
  GitRepo repo;
  seed(repo);
  repo.plan();
  const fs::path body = repo.scratch() / "body.md";
  const fs::path citations = repo.scratch() / "citations.json";
  std::ofstream(body) << "Body.\n";
  std::ofstream(citations) << "[{\"path\": ";
  const RunResult result = repo.run("save module-src " + quoted(body.string()) + " --citations " +
                                    quoted(citations.string()));
  EXPECT_EQ(result.code, 1);
  EXPECT_NE(result.err.find("citations file " + citations.string() + " is not JSON"),
            std::string::npos)
      << result.err;
  EXPECT_TRUE(zenthar_kodrune::workers::wiki::is_empty(
      repo.rows().at("module-src").value("content_hash", Json())));
}

TEST(BadInput, CorruptDatabaseIsReportedAndLeftAsItWas) {
  GitRepo repo;
  seed(repo);
  const std::string garbage = "this is not an SQLite database\n" + std::string(5000, 'x');
  repo.write("memory/orvane/.store/wiki.db", garbage);
  const fs::path body = repo.scratch() / "body.md";
  std::ofstream(body) << "Body.\n";
  for (const std::string& command :
       std::vector<std::string>{"plan", "changes", "save module-src " + body.string()}) {
    const RunResult result = repo.run(command);
    EXPECT_EQ(result.code, 1) << command;
    EXPECT_EQ(result.err.rfind("kodrune-wiki: error: ", 0), 0u) << result.err;
    EXPECT_NE(result.err.find("wiki.db"), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
  EXPECT_EQ(slurp(repo.root() / "memory/orvane/.store/wiki.db"), garbage);
  EXPECT_FALSE(fs::exists(repo.root() / "memory/orvane/main/plan-log.jsonl"));
}

TEST(BadInput, RpcAnswersHostileLinesAndServesTheNext) {
  GitRepo repo;
  const fs::path requests = repo.scratch() / "requests.jsonl";
  {
    std::ofstream out(requests, std::ios::binary);
    out << "{\"id\": 1, \"op\": \"drift_signal\", \"args\": {\"plan_size\": 1e400}}\n";
    out << std::string(100000, '[') << "\n";
    out << "{\"id\": 3, \"op\": \"drift_signal\", \"args\": {\"amendments\": " +
               std::string(60000, '[') + "}}\n";
    out << "{\"id\": 4, \"op\": \"drift_signal\", \"args\": {\"amendments\": [], "
           "\"plan_size\": 10}}\n";
  }
  const RunResult result = repo.run("rpc < " + quoted(requests.string()));
  ASSERT_EQ(result.code, 0) << result.err;
  std::vector<Json> answers;
  std::istringstream lines(result.out);
  for (std::string line; std::getline(lines, line);) answers.push_back(Json::parse(line));
  ASSERT_EQ(answers.size(), 4u) << result.out;
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(answers[i]["error"]["kind"], "invalid_request") << answers[i];
  }
  EXPECT_NE(answers[0]["error"]["message"].get<std::string>().find("number overflow"),
            std::string::npos);
  EXPECT_NE(answers[1]["error"]["message"].get<std::string>().find("deeper than 512"),
            std::string::npos);
  EXPECT_EQ(answers[3], Json::parse("{\"id\": 4, \"result\": null}"));
}

TEST(BadInput, UnknownOptionsAndMissingArgumentsAreUsageErrors) {
  GitRepo repo;
  seed(repo);
  for (const std::string command :
       {"plan --bogus", "save", "save module-src", "log --limit x", "frobnicate"}) {
    const RunResult result = repo.run(command);
    EXPECT_EQ(result.code, 2) << command;
    EXPECT_EQ(result.err.rfind("kodrune-wiki: error: ", 0), 0u) << command << ": " << result.err;
  }
  const RunResult help = repo.run("plan --help");
  EXPECT_EQ(help.code, 0);
  EXPECT_NE(help.out.find("--replan"), std::string::npos);
}

}  // namespace
}  // namespace kodrune_e2e

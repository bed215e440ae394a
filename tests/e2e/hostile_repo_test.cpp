// A cloned repository is not trusted: links committed under memory/orvane,
// branch names that reach the store's files, logs that were cut off or hold
// bytes that are not UTF-8, and hostile inputs never make kodrune-wiki read
// or write outside the repository, crash, or fail every later build.
#include <gtest/gtest.h>

#include <functional>

#include "e2e/repo_fixture.hpp"

namespace kodrune_e2e {
namespace {

void seed(GitRepo& repo) {
  repo.write_unit("src", 3);
  repo.commit("seed");
}

// A folder outside the repository holding one file, and what it held.
struct Outside {
  explicit Outside(const GitRepo& repo) : folder(repo.scratch() / "outside") {
    fs::create_directories(folder);
    std::ofstream(folder / "victim.txt") << "keep\n";
  }
  void expect_untouched(const std::string& what) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
      names.push_back(entry.path().filename().string());
    }
    EXPECT_EQ(names, std::vector<std::string>{"victim.txt"}) << what;
    EXPECT_EQ(slurp(folder / "victim.txt"), "keep\n") << what;
  }
  fs::path folder;
};

TEST(HostileRepository, LinksUnderMemoryAreRefusedNotFollowed) {
  struct Case {
    std::string link;     // below the repository root
    bool to_file;         // the link names the outside file, else the folder
    std::string prepare;  // a command run before the link is made
    std::string command;
  };
  const Case cases[] = {
      {"memory", false, "", "plan"},
      {"memory/orvane/main", false, "", "plan"},
      {"memory/orvane/.store", false, "", "plan"},
      {"memory/orvane/main/plan-log.jsonl", true, "", "plan"},
      {"memory/orvane/steering.md", true, "plan", "plan"},
      {"memory/orvane/main/pages", false, "plan", "save module-src BODY"},
  };
  for (const auto& item : cases) {
    GitRepo repo;
    seed(repo);
    const Outside outside(repo);
    if (!item.prepare.empty()) {
      ASSERT_EQ(repo.run(item.prepare).code, 0);
    }
    fs::create_directories((repo.root() / item.link).parent_path());
    fs::remove_all(repo.root() / item.link);
    fs::create_symlink(item.to_file ? outside.folder / "victim.txt" : outside.folder,
                       repo.root() / item.link);
    std::string command = item.command;
    const fs::path body = repo.scratch() / "body.md";
    std::ofstream(body) << "Body.\n";
    if (const auto at = command.find("BODY"); at != std::string::npos) {
      command.replace(at, 4, quoted(body.string()));
    }
    const RunResult result = repo.run(command);
    EXPECT_EQ(result.code, 1) << item.link << ": " << result.err;
    EXPECT_NE(result.err.find("symbolic link"), std::string::npos)
        << item.link << ": " << result.err;
    outside.expect_untouched(item.link);
  }
}

TEST(HostileRepository, LinkedSourceFileIsNotHashed) {
  GitRepo repo;
  seed(repo);
  const Outside outside(repo);
  fs::create_symlink(outside.folder / "victim.txt", repo.root() / "src/linked.cpp");
  repo.commit("link");
  ASSERT_EQ(repo.save("module-src", "Body.\n").code, 0);
  const Json hashes = repo.rows().at("module-src")["source_hashes"];
  EXPECT_TRUE(hashes.contains("src/f01.cpp")) << hashes.dump();
  EXPECT_FALSE(hashes.contains("src/linked.cpp")) << hashes.dump();
}

TEST(HostileRepository, BranchNamesThatOverlapOtherFilesAreRefused) {
  GitRepo repo;
  seed(repo);
  const std::pair<std::string, std::string> cases[] = {
      {"wiki.db-journal", "overlap memory/orvane/wiki.db-journal"},
      {"wiki.db", "overlap memory/orvane/wiki.db"},
      {"steering.md", "overlap memory/orvane/steering.md"},
      {"main/pages", "overlap another branch's pages"},
      {"main/plan-log.jsonl", "overlap another branch's plan-log.jsonl"},
      {std::string(5000, 'a'), "5000 bytes"},
      {"a/" + std::string(300, 'b'), "longer than 255 bytes"},
  };
  for (const auto& [branch, reason] : cases) {
    const RunResult result = repo.run("plan --branch " + quoted(branch));
    EXPECT_EQ(result.code, 2) << branch.substr(0, 40);
    EXPECT_EQ(result.err.rfind("kodrune-wiki: error: invalid branch name", 0), 0u) << result.err;
    EXPECT_NE(result.err.find(reason), std::string::npos) << result.err.substr(0, 200);
  }
  EXPECT_EQ(repo.run("plan").code, 0);
  EXPECT_EQ(repo.run("plan --branch main/x").code, 0);
  EXPECT_FALSE(fs::exists(repo.root() / "memory/orvane/wiki.db-journal"));
  EXPECT_FALSE(fs::exists(repo.root() / "memory/orvane/main/pages/x"));
}

TEST(HostileRepository, PageIdTooLongForAFileNameIsNamed) {
  GitRepo repo;
  const std::string folder(250, 'a');
  repo.write_unit(folder, 2);
  repo.commit("long");
  repo.plan();
  const fs::path body = repo.scratch() / "body.md";
  std::ofstream(body) << "Body.\n";
  const RunResult result = repo.run("save module-" + folder + " " + quoted(body.string()));
  EXPECT_EQ(result.code, 1);
  EXPECT_NE(result.err.find("257 bytes long"), std::string::npos) << result.err;
}

TEST(HostileRepository, DamagedLogIsReadAroundAndExtended) {
  GitRepo repo;
  seed(repo);
  repo.plan();
  const fs::path log = repo.root() / "memory/orvane/main/plan-log.jsonl";
  const std::string entry = slurp(log);
  // A line that is not UTF-8, then one cut off by a writer that died.
  std::ofstream(log, std::ios::binary | std::ios::trunc)
      << entry << "{\"at\": \"\xff\xfe\"}\n"
      << "{\"at\": \"2026-01-01T00:00:00\", \"rep";
  repo.write_unit("lib", 3);
  repo.commit("lib");
  const RunResult plan = repo.run("plan");
  EXPECT_EQ(plan.code, 0) << plan.err;
  EXPECT_NE(plan.err.find("plan-log.jsonl"), std::string::npos) << plan.err;
  const RunResult shown = repo.run("log --json");
  EXPECT_EQ(shown.code, 0) << shown.err;
  const Json entries = Json::parse(shown.out);
  ASSERT_EQ(entries.size(), 2u) << shown.out;
  EXPECT_EQ(entries[1]["amendments"][0]["page_id"], "module-lib");
  EXPECT_NE(shown.err.find("line 2:"), std::string::npos) << shown.err;
  EXPECT_NE(shown.err.find("line 3:"), std::string::npos) << shown.err;
}

TEST(HostileRepository, BadBodiesAndDeepCitationsAreRefusedWithoutChange) {
  GitRepo repo;
  seed(repo);
  ASSERT_EQ(repo.save("module-src", "Kept.\n").code, 0);
  const fs::path citations = repo.scratch() / "deep.json";
  std::ofstream(citations) << std::string(100000, '[') << std::string(100000, ']');
  const fs::path body = repo.scratch() / "body.md";
  std::ofstream(body) << "New.\n";
  const std::pair<std::string, std::string> cases[] = {
      {"save module-src " + quoted(repo.scratch().string()), "not a regular file"},
      {"save module-src /dev/null", "not a regular file"},
      {"save module-src " + quoted(body.string()) + " --citations " + quoted(citations.string()),
       "deeper than 512"},
  };
  for (const auto& [command, reason] : cases) {
    const RunResult result = repo.run(command);
    EXPECT_EQ(result.code, 1) << command;
    EXPECT_NE(result.err.find(reason), std::string::npos) << result.err;
  }
  EXPECT_EQ(slurp(repo.root() / "memory/orvane/main/pages/module-src.md"), "Kept.\n");
}

TEST(HostileRepository, StoreAtTheOldPlaceIsMovedWithItsRows) {
  GitRepo repo;
  seed(repo);
  ASSERT_EQ(repo.save("module-src", "Body.\n").code, 0);
  const fs::path store = repo.root() / "memory/orvane/.store/wiki.db";
  const fs::path old = repo.root() / "memory/orvane/wiki.db";
  fs::rename(store, old);
  const Json plan = repo.plan();
  EXPECT_EQ(plan_of(plan, "module-src")["state"], "fresh") << plan.dump();
  EXPECT_FALSE(fs::exists(old));
  EXPECT_TRUE(fs::exists(store));
}

}  // namespace
}  // namespace kodrune_e2e

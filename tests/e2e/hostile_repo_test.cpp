// A cloned repository is not trusted: links committed under memory/orvane,
// logs that were cut off or hold bytes that are not UTF-8, and hostile inputs
// never make kodrune-wiki read or write outside the repository, crash, or
// fail every later build.
#include <gtest/gtest.h>

#include <functional>

#include "e2e/repo_fixture.hpp"

namespace kodrune_e2e {
namespace {

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
    repo.seed_src();
    const Outside outside(repo);
    if (!item.prepare.empty()) {
      ASSERT_EQ(repo.run(item.prepare).code, 0);
    }
    fs::create_directories((repo.root() / item.link).parent_path());
    fs::remove_all(repo.root() / item.link);
    fs::create_symlink(item.to_file ? outside.folder / "victim.txt" : outside.folder,
                       repo.root() / item.link);
    std::string command = item.command;
    if (const auto at = command.find("BODY"); at != std::string::npos) {
      command.replace(at, 4, repo.scratch_file("Body.\n"));
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
  repo.seed_src();
  const Outside outside(repo);
  fs::create_symlink(outside.folder / "victim.txt", repo.root() / "src/linked.cpp");
  repo.commit("link");
  ASSERT_EQ(repo.save("module-src", "Body.\n").code, 0);
  const Json hashes = repo.rows().at("module-src")["source_hashes"];
  EXPECT_TRUE(hashes.contains("src/f01.cpp")) << hashes.dump();
  EXPECT_FALSE(hashes.contains("src/linked.cpp")) << hashes.dump();
}

TEST(HostileRepository, PageIdTooLongForAFileNameIsNamed) {
  GitRepo repo;
  const std::string folder(250, 'a');
  repo.write_unit(folder, 2);
  repo.commit("long");
  const RunResult result = repo.save("module-" + folder, "Body.\n");
  EXPECT_EQ(result.code, 1);
  EXPECT_NE(result.err.find("257 bytes long"), std::string::npos) << result.err;
}

TEST(HostileRepository, DamagedLogIsReadAroundAndExtended) {
  GitRepo repo;
  repo.seed_src();
  repo.plan();
  const fs::path log = repo.root() / "memory/orvane/main/plan-log.jsonl";
  const std::string entry = slurp(log);
  // A line that is not UTF-8, an entry whose fields hold other types, one
  // that is JSON but no entry, then one cut off by a writer that died.
  std::ofstream(log, std::ios::binary | std::ios::trunc)
      << entry << "{\"at\": \"\xff\xfe\"}\n"
      << "{\"at\": 7, \"replan\": \"yes\", \"amendments\": {\"action\": 1}}\n"
      << "[1, 2]\n"
      << "{\"at\": \"2026-01-01T00:00:00\", \"rep";
  repo.write_unit("lib", 3);
  repo.commit("lib");
  const RunResult plan = repo.run("plan");
  EXPECT_EQ(plan.code, 0) << plan.err;
  EXPECT_NE(plan.err.find("plan-log.jsonl"), std::string::npos) << plan.err;
  const RunResult shown = repo.run("log --json");
  EXPECT_EQ(shown.code, 0) << shown.err;
  const Json entries = Json::parse(shown.out);
  ASSERT_EQ(entries.size(), 3u) << shown.out;
  EXPECT_EQ(entries[2]["amendments"][0]["page_id"], "module-lib");
  // Both forms show every readable entry and name each line they skip.
  const RunResult text = repo.run("log");
  EXPECT_EQ(text.code, 0) << text.err;
  EXPECT_NE(text.out.find("\n  add module-lib: "), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("7: 0 amendments\n"), std::string::npos) << text.out;
  for (const char* line : {"line 2:", "line 4:", "line 5:"}) {
    EXPECT_NE(shown.err.find(line), std::string::npos) << shown.err;
    EXPECT_NE(text.err.find(line), std::string::npos) << text.err;
  }
}

TEST(HostileRepository, StoreAtTheOldPlaceIsMovedWithItsRows) {
  GitRepo repo;
  repo.seed_src();
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

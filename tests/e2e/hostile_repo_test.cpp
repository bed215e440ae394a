// A cloned repository is not trusted: links committed under memory/orvane,
// logs that were cut off or hold bytes that are not UTF-8, and hostile inputs
// never make kodrune-wiki read or write outside the repository, crash, or
// fail every later build.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>

#include "e2e/repo_fixture.hpp"

namespace kodrune_e2e {
namespace {

using ::testing::HasSubstr;

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
    EXPECT_THAT(result.err, HasSubstr("symbolic link")) << item.link << ": " << result.err;
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
  EXPECT_THAT(result.err, HasSubstr("257 bytes long"));
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
  EXPECT_THAT(plan.err, HasSubstr("plan-log.jsonl"));
  const RunResult shown = repo.run("log --json");
  EXPECT_EQ(shown.code, 0) << shown.err;
  const Json entries = Json::parse(shown.out);
  ASSERT_EQ(entries.size(), 3u) << shown.out;
  EXPECT_EQ(entries[2]["amendments"][0]["page_id"], "module-lib");
  // Both forms show every readable entry and name each line they skip.
  const RunResult text = repo.run("log");
  EXPECT_EQ(text.code, 0) << text.err;
  EXPECT_THAT(text.out, HasSubstr("\n  add module-lib: "));
  EXPECT_THAT(text.out, HasSubstr("7: 0 amendments\n"));
  for (const char* line : {"line 2:", "line 4:", "line 5:"}) {
    EXPECT_THAT(shown.err, HasSubstr(line));
    EXPECT_THAT(text.err, HasSubstr(line));
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

// Names as old and odd repositories commit them. Those no JSON text or line
// of output can carry as they are (not UTF-8, a line feed, a tab) are left
// out with one warning naming them escaped; the rest (a leading dash, both
// Unicode forms of one name) are carried byte for byte.
void commit_odd_names(GitRepo& repo) {
  repo.write_unit("src", 3);
  for (const char* name : {"src/bad\xff.py", "src/we\nird.py", "src/tab\there.py", "src/-dash.py",
                           "src/caf\xc3\xa9.py", "src/cafe\xcc\x81.py"}) {
    repo.write(name, "x = 1\n");
  }
  repo.commit("odd names");
}

TEST(HostileRepository, OddFileNamesAreLeftOutByNameOrCarriedAsTheyAre) {
  GitRepo repo;
  commit_odd_names(repo);
  const RunResult first = repo.run("plan --json");
  ASSERT_EQ(first.code, 0) << first.err;
  EXPECT_THAT(first.err,
              HasSubstr("left out 3 files whose names are not UTF-8 text or hold a control "
                        "character: \"src/bad\\xff.py\", \"src/tab\\there.py\", "
                        "\"src/we\\nird.py\""));
  const Json files = plan_of(first.json(), "module-src")["source_files"];
  // Byte order: "e" (0x65) of the decomposed form sorts before 0xc3.
  EXPECT_EQ(files, Json({"src/-dash.py", "src/cafe\xcc\x81.py", "src/caf\xc3\xa9.py", "src/f01.cpp",
                         "src/f02.cpp", "src/f03.cpp"}));
  EXPECT_EQ(repo.plan()["amendments"], Json::array());

  ASSERT_EQ(repo.save("module-src", "Lead.\n\n## Dash\n\nSee [it](src/-dash.py#L1-L1).\n").code, 0);
  // A left-out file that changes or goes is no change to any page.
  repo.write("src/bad\xff.py", "x = 2\n");
  repo.remove("src/we\nird.py");
  repo.commit("odd files change");
  const RunResult changes = repo.run("changes --json module-src");
  ASSERT_EQ(changes.code, 0) << changes.err;
  EXPECT_EQ(
      changes.json()["module-src"]["changed_files"],
      Json({{"added", Json::array()}, {"removed", Json::array()}, {"modified", Json::array()}}))
      << changes.out;
  EXPECT_EQ(plan_of(repo.plan(), "module-src")["state"], "fresh");

  // A carried odd name changes like any other file.
  repo.write("src/-dash.py", "x = 3\n");
  const RunResult text = repo.run("changes module-src");
  ASSERT_EQ(text.code, 0) << text.err;
  EXPECT_THAT(text.out, HasSubstr("modified: src/-dash.py"));
  EXPECT_THAT(text.out, HasSubstr("stale sections: \"Dash\""));

  const std::string request = repo.scratch_file(R"({"id": 1, "op": "select_stale", "args": {}})"
                                                "\n",
                                                "rpc.jsonl");
  const RunResult rpc = repo.run("rpc < " + request);
  ASSERT_EQ(rpc.code, 0) << rpc.err;
  EXPECT_EQ(Json::parse(rpc.out)["result"]["stale"], Json({"module-src", "overview"})) << rpc.out;
}

TEST(HostileRepository, SaveRefusesATitleOfTwoLines) {
  GitRepo repo;
  repo.seed_src();
  const RunResult refused = repo.run("save module-src " + repo.scratch_file("Body.\n") +
                                     " --title " + quoted("Two\nlines"));
  EXPECT_EQ(refused.code, 1);
  EXPECT_THAT(refused.err,
              HasSubstr("title of page \"module-src\" holds the control character U+000A at "
                        "byte 3"));
  EXPECT_TRUE(repo.rows().count("module-src") == 0 ||
              repo.rows().at("module-src").value("content_hash", "").empty());
}

// A wiki store committed with the repository, carrying a trigger a pull
// request slipped in: every command refuses it by name, and it never runs.
TEST(HostileRepository, CommittedStoreWithATriggerIsRefusedAndNeverRuns) {
  GitRepo repo;
  repo.seed_src();
  ASSERT_EQ(repo.save("module-src", "Body.\n").code, 0);
  const fs::path store = repo.root() / "memory/orvane/.store/wiki.db";
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(store.c_str(), &raw), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(raw,
                         "CREATE TRIGGER pwn AFTER INSERT ON wiki_pages BEGIN "
                         "UPDATE wiki_pages SET title = 'pwned'; END",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(raw);  // the last connection: its write is checkpointed into the file
  repo.commit("a store with a trigger");
  const std::string before = slurp(store);

  const std::vector<std::string> commands = {
      "plan", "save module-src " + repo.scratch_file("New.\n"), "changes"};
  for (const std::string& command : commands) {
    const RunResult refused = repo.run(command);
    EXPECT_EQ(refused.code, 1) << command;
    EXPECT_THAT(refused.err, HasSubstr("holds a trigger \"pwn\" that this program does not create"))
        << command << ": " << refused.err;
  }
  EXPECT_EQ(slurp(store), before);
}

}  // namespace
}  // namespace kodrune_e2e

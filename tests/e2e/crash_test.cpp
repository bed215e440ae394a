// A process killed at the worst moments loses nothing: the command built with
// fault points (kodrune-wiki-faulty) dies by SIGKILL exactly where
// KODRUNE_FAULT_POINT says, and the next ordinary command finds the store,
// the bodies and the audit log consistent.
#include <gtest/gtest.h>

#include "e2e/repo_fixture.hpp"
#include "workers/wiki/util/repo_facts.hpp"

namespace kodrune_e2e {
namespace {

using zenthar_kodrune::workers::wiki::util::_text_hash;

RunResult killed_at(const GitRepo& repo, const std::string& point, const std::string& args) {
  return repo.run(args, KODRUNE_WIKI_FAULTY_EXE, "KODRUNE_FAULT_POINT=" + point);
}

fs::path pages(const GitRepo& repo) { return repo.root() / "memory/orvane/main/pages"; }

std::vector<std::string> names_in(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// How many log entries carry an amendment "add PAGE".
int logged_adds(const GitRepo& repo, const std::string& page_id) {
  int count = 0;
  for (const auto& entry : Json::parse(repo.run("log --json").out)) {
    for (const auto& amendment : entry["amendments"]) {
      if (amendment["action"] == "add" && amendment["page_id"] == page_id) ++count;
    }
  }
  return count;
}

TEST(Crash, KilledSaveLeavesRowAndBodyOfOneSave) {
  // Killed before its row commits the save never happened; killed after,
  // the next command completes it.
  const std::pair<std::string, bool> cases[] = {{"save:body-written", false},
                                                {"save:committed", true}};
  for (const auto& [point, lands] : cases) {
    GitRepo repo;
    repo.seed_src();
    ASSERT_EQ(repo.save("module-src", "Old.\n").code, 0);
    EXPECT_EQ(killed_at(repo, point, "save module-src " + repo.scratch_file("New.\n")).code, -1)
        << point;

    const Json plan = repo.plan();
    const std::string expected = lands ? "New.\n" : "Old.\n";
    EXPECT_EQ(slurp(pages(repo) / "module-src.md"), expected) << point;
    EXPECT_EQ(repo.rows().at("module-src")["content_hash"], _text_hash(expected)) << point;
    EXPECT_EQ(names_in(pages(repo)), std::vector<std::string>{"module-src.md"}) << point;
    EXPECT_EQ(plan_of(plan, "module-src")["state"], "fresh") << point << plan.dump();
  }
}

TEST(Crash, KilledBuildsLogTheirAmendmentsExactlyOnce) {
  for (const std::string point : {"plan:committed", "plan:log-appended"}) {
    GitRepo repo;
    repo.seed_src();
    repo.plan();
    repo.write_unit("lib", 3);
    repo.commit("lib");
    EXPECT_EQ(killed_at(repo, point, "plan").code, -1) << point;
    EXPECT_TRUE(amendment_lines(repo.plan()).empty()) << point;
    EXPECT_EQ(logged_adds(repo, "module-lib"), 1) << point;
  }
}

TEST(Crash, KilledRotationLeavesTheLogWholeAndItsTemporaryIsRemoved) {
  GitRepo repo;
  repo.seed_src();
  repo.plan();
  const fs::path log = repo.root() / "memory/orvane/main/plan-log.jsonl";
  const std::string first = slurp(log);
  std::string full;
  for (int i = 0; i < 2000; ++i) full += first;
  std::ofstream(log, std::ios::binary | std::ios::trunc) << full;
  repo.write_unit("lib", 3);
  repo.commit("lib");
  EXPECT_EQ(killed_at(repo, "log:rotation-written", "plan").code, -1);
  const auto temporaries = [&] {
    int count = 0;
    for (const auto& name : names_in(log.parent_path()))
      count += name.find(".tmp-") != std::string::npos;
    return count;
  };
  EXPECT_EQ(temporaries(), 1);
  const RunResult next = repo.run("plan");
  EXPECT_EQ(next.code, 0) << next.err;
  EXPECT_EQ(temporaries(), 0);
  const std::string text = slurp(log);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2001);  // not rotated yet, nothing lost
  EXPECT_EQ(logged_adds(repo, "module-lib"), 1);
}

}  // namespace
}  // namespace kodrune_e2e

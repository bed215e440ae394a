// Concurrent runs of kodrune-wiki on one repository lose nothing: a save that
// exits 0 stays saved, its row and its body agree, and the audit log holds
// each build's amendments once.
#include <gtest/gtest.h>

#include <thread>

#include "e2e/repo_fixture.hpp"
#include "workers/wiki/util/repo_facts.hpp"

namespace kodrune_e2e {
namespace {

using zenthar_kodrune::workers::wiki::util::_text_hash;

// Runs `count` jobs at once, each given its index.
template <typename Job>
void at_once(int count, Job job) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(job, i);
  for (auto& thread : threads) thread.join();
}

std::string stored_hash(const GitRepo& repo, const std::string& page_id) {
  return repo.rows().at(page_id).value("content_hash", "");
}

std::string body_on_disk(const GitRepo& repo, const std::string& page_id) {
  return slurp(repo.root() / ("memory/orvane/main/pages/" + page_id + ".md"));
}

TEST(Race, PlansThatRewriteAPageDoNotUndoItsSave) {
  GitRepo repo;
  repo.seed_src();
  repo.plan();
  for (int round = 0; round < 12; ++round) {
    // Each round gives the page a file, so every plan rewrites its row.
    repo.write_unit("src", 1, 4 + round);
    repo.commit("grow");
    const std::string body = "Round " + std::to_string(round) + ".\n";
    at_once(4, [&](int i) {
      const RunResult result = i == 0 ? repo.save("module-src", body) : repo.run("plan");
      EXPECT_EQ(result.code, 0) << result.err;
    });
    EXPECT_EQ(stored_hash(repo, "module-src"), _text_hash(body)) << "round " << round;
    EXPECT_EQ(body_on_disk(repo, "module-src"), body) << "round " << round;
  }
}

TEST(Race, ConcurrentSavesOfOnePageEachLandWhole) {
  GitRepo repo;
  repo.seed_src();
  repo.plan();
  for (int round = 0; round < 3; ++round) {
    std::vector<std::string> bodies;
    for (int i = 0; i < 8; ++i) bodies.push_back("Body " + std::to_string(round * 8 + i) + ".\n");
    at_once(8, [&](int i) {
      const RunResult result = repo.save("module-src", bodies[static_cast<std::size_t>(i)]);
      EXPECT_EQ(result.code, 0) << result.err;
    });
    const std::string body = body_on_disk(repo, "module-src");
    EXPECT_NE(std::find(bodies.begin(), bodies.end(), body), bodies.end()) << body;
    EXPECT_EQ(stored_hash(repo, "module-src"), _text_hash(body));
  }
  // No save left a file of its own behind.
  int files = 0;
  for (const auto& entry : fs::directory_iterator(repo.root() / "memory/orvane/main/pages")) {
    EXPECT_EQ(entry.path().filename(), "module-src.md");
    ++files;
  }
  EXPECT_EQ(files, 1);
}

TEST(Race, ConcurrentFirstPlansLogTheBootstrapOnce) {
  for (int round = 0; round < 3; ++round) {
    GitRepo repo;
    repo.write_unit("src", 3);
    repo.write_unit("lib", 3);
    repo.commit("seed");
    at_once(16, [&](int) {
      const RunResult result = repo.run("plan");
      EXPECT_EQ(result.code, 0) << result.err;
    });
    const Json log = Json::parse(repo.run("log --json").out);
    ASSERT_EQ(log.size(), 1u) << log.dump();
    EXPECT_EQ(log[0]["amendments"].size(), 1u) << log.dump();  // "add overview"
  }
}

}  // namespace
}  // namespace kodrune_e2e

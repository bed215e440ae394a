// Wiki workers on several machines sharing one PostgreSQL store: each worker
// has a checkout of its own (so its own wiki folder and its own local
// locks), and only the store is shared.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "e2e/repo_fixture.hpp"
#include "support/postgres_cluster.hpp"
#include "workers/wiki/util/repo_facts.hpp"

namespace kodrune_e2e {
namespace {

using ::testing::HasSubstr;

namespace wiki = zenthar_kodrune::workers::wiki;

using SharedStore = kodrune_test::PostgresTest;

// The same tree in every checkout.
void seed(GitRepo& repo, int units) {
  for (int u = 0; u < units; ++u) repo.write_unit("u" + std::to_string(u), 3);
  repo.write("common/c01.cpp", "int c01;\n");
  repo.write("common/c02.cpp", "int c02;\n");
  repo.commit("seed");
}

bool adds_overview(const Json& amendments) {
  for (const auto& amendment : amendments) {
    if (amendment.value("action", "") == "add" && amendment.value("page_id", "") == "overview") {
      return true;
    }
  }
  return false;
}

TEST_F(SharedStore, SecondWorkerServesWhatTheFirstSaved) {
  GitRepo first;
  GitRepo second;
  for (GitRepo* repo : {&first, &second}) {
    repo->use_store(uri_);
    seed(*repo, 2);
  }
  first.plan();
  const std::string body = "Lead.\n\n## Uses\n\nSee [it](u0/f01.cpp#L1-L2).\n";
  ASSERT_EQ(first.save("module-u0", body).code, 0);

  const Json plan = second.plan();
  // Saved elsewhere, fresh here: the body comes from the store into this
  // worker's wiki folder.
  EXPECT_EQ(plan_of(plan, "module-u0").at("state"), "fresh") << plan.dump();
  EXPECT_EQ(slurp(second.root() / "memory/orvane/main/pages/module-u0.md"), body);
  const RunResult log = second.run("log --json");
  ASSERT_EQ(log.code, 0) << log.err;
  ASSERT_EQ(log.json().size(), 1u);
  EXPECT_TRUE(adds_overview(log.json()[0].at("amendments")));
  const RunResult changes = second.run("changes module-u0 --json");
  ASSERT_EQ(changes.code, 0) << changes.err;
  EXPECT_TRUE(changes.json().contains("module-u0"));
}

// The server goes away while a build has written its rows and log line but
// not committed them: the command fails saying where the store is (never
// the password), and the store holds the build before it, whole.
TEST_F(SharedStore, ServerLostMidBuildFailsTheBuildAndKeepsTheLastCommit) {
  kodrune_test::PostgresCluster& cluster = kodrune_test::PostgresCluster::instance();
  for (const std::string mode : {"fast", "immediate"}) {
    SCOPED_TRACE(mode);
    const std::string database = cluster.create_database();
    GitRepo repo;
    repo.use_store(cluster.uri(database));
    seed(repo, 2);
    repo.plan();
    ASSERT_EQ(repo.save("module-u0", "Lead.\n").code, 0);
    const wiki::Existing rows = repo.store()->load_pages("main");
    const auto log = repo.store()->plan_log_lines("main");
    repo.write_unit("lib", 3);
    repo.commit("lib");

    const fs::path handshake = repo.scratch() / ("pause-" + mode);
    fs::create_directories(handshake);
    RunResult failed;
    std::thread build([&] {
      failed = repo.run("plan", KODRUNE_WIKI_FAULTY_EXE,
                        "KODRUNE_FAULT_POINT=plan:recorded KODRUNE_FAULT_PAUSE_DIR=" +
                            quoted(handshake.string()));
    });
    for (int waited = 0; waited < 6000 && !fs::exists(handshake / "paused"); ++waited) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const bool paused = fs::exists(handshake / "paused");
    if (paused) cluster.stop(mode);
    std::ofstream(handshake / "resume") << "\n";
    build.join();
    cluster.start();
    ASSERT_TRUE(paused) << "the build never reached its pause: " << failed.err;
    ASSERT_TRUE(cluster.running()) << cluster.failure();

    EXPECT_GT(failed.code, 0) << failed.err;
    std::string message = failed.err;
    while (!message.empty() && message.back() == '\n') message.pop_back();
    EXPECT_EQ(message.find('\n'), std::string::npos) << failed.err;
    EXPECT_THAT(message, HasSubstr("host " + cluster.socket_dir().string()));
    EXPECT_THAT(message, HasSubstr("database " + database));
    EXPECT_EQ(message.find(kodrune_test::PostgresCluster::kPassword), std::string::npos);

    const auto store = repo.store();
    EXPECT_EQ(store->load_pages("main"), rows);
    EXPECT_EQ(store->plan_log_lines("main"), log);
    EXPECT_TRUE(store->pending_log_lines("main").empty());
    // The lost build is made again by the next one, whole.
    EXPECT_EQ(plan_of(repo.plan(), "module-lib").at("state"), "new");
  }
}

// 8 workers, 4 on each of two branches, each running 12 rounds of a plan
// and a save of its own page while files change between rounds.
TEST_F(SharedStore, ConcurrentWorkersLoseNoSaveAndLogEveryBuildOnce) {
  constexpr int kWorkers = 8;
  constexpr int kRounds = 12;
  const std::string branches[] = {"main", "feature/load"};
  std::vector<std::unique_ptr<GitRepo>> repos;
  for (int w = 0; w < kWorkers; ++w) {
    repos.push_back(std::make_unique<GitRepo>());
    repos.back()->use_store(uri_);
    seed(*repos.back(), kWorkers);
  }
  const auto branch_of = [&](int w) { return branches[w % 2]; };

  std::vector<std::string> last_body(kWorkers);
  std::map<std::string, std::vector<Json>> logged;  // branch -> amendments of each build
  std::vector<std::string> failures;
  std::mutex mutex;
  for (int round = 0; round < kRounds; ++round) {
    // Between rounds every checkout sees the same change: a new folder of
    // two files (a new page, so one build of each branch logs it), a new
    // file in common and an edit in one unit.
    if (round > 0) {
      for (auto& repo : repos) {
        const std::string folder = "n" + std::to_string(round);
        repo->write(folder + "/a.cpp", "int a;\n");
        repo->write(folder + "/b.cpp", "int b;\n");
        repo->write("common/r" + std::to_string(round) + ".cpp", "int r;\n");
        repo->write("u" + std::to_string(round % kWorkers) + "/f01.cpp",
                    "int edited_" + std::to_string(round) + ";\n");
        repo->commit("round " + std::to_string(round));
      }
    }
    std::vector<std::thread> threads;
    for (int w = 0; w < kWorkers; ++w) {
      threads.emplace_back([&, w] {
        GitRepo& repo = *repos[static_cast<std::size_t>(w)];
        const std::string branch = "--branch " + quoted(branch_of(w));
        const RunResult plan = repo.run("plan --json " + branch);
        const std::string body =
            "Page of worker " + std::to_string(w) + ", round " + std::to_string(round) + ".\n";
        const fs::path file = repo.scratch() / ("body-" + std::to_string(round) + ".md");
        std::ofstream(file) << body;
        const RunResult save = repo.run("save module-u" + std::to_string(w) + " " +
                                        quoted(file.string()) + " " + branch);
        const std::lock_guard<std::mutex> lock(mutex);
        if (plan.code != 0)
          failures.push_back("plan of worker " + std::to_string(w) + ": " + plan.err);
        if (save.code != 0)
          failures.push_back("save of worker " + std::to_string(w) + ": " + save.err);
        if (plan.code == 0) {
          const Json amendments = plan.json().at("amendments");
          if (!amendments.empty()) logged[branch_of(w)].push_back(amendments);
        }
        if (save.code == 0) last_body[static_cast<std::size_t>(w)] = body;
      });
    }
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(failures.empty()) << "round " << round << ": " << failures.front();
  }

  const auto store = repos[0]->store();
  for (const auto& branch : branches) {
    // No save lost: every worker's page holds its last body.
    const wiki::Existing rows = store->load_pages(branch);
    for (int w = 0; w < kWorkers; ++w) {
      if (branch_of(w) != branch) continue;
      const std::string id = "module-u" + std::to_string(w);
      ASSERT_EQ(rows.count(id), 1u) << branch << " " << id;
      EXPECT_EQ(rows.at(id).at("content_hash"),
                wiki::util::_text_hash(last_body[static_cast<std::size_t>(w)]))
          << branch << " " << id;
      EXPECT_EQ(store->page_body(branch, id), last_body[static_cast<std::size_t>(w)]);
    }
    // Every build's amendments are in the log once, and the first plan was
    // made once.
    const auto lines = store->plan_log_lines(branch);
    ASSERT_TRUE(lines.has_value());
    std::multiset<std::string> in_log;
    int bootstraps = 0;
    for (const auto& line : *lines) {
      const Json entry = Json::parse(line);
      in_log.insert(entry.at("amendments").dump());
      if (adds_overview(entry.at("amendments"))) ++bootstraps;
    }
    std::multiset<std::string> reported;
    for (const auto& amendments : logged[branch]) reported.insert(amendments.dump());
    EXPECT_EQ(bootstraps, 1) << branch;
    EXPECT_EQ(in_log, reported) << branch;
    // The first plan, then one build per round that met the new folder.
    EXPECT_EQ(reported.size(), static_cast<std::size_t>(kRounds)) << branch;
  }
}

}  // namespace
}  // namespace kodrune_e2e

// The orchestrator. Its file hashing: the stamp-keyed cache in the store means
// a build over an unchanged repository reads no file, and each file is read
// at most once per build. Its builds: one load of the rows whatever they
// write, why a written page is to be written again, and a stored body path
// that would leave the wiki.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>

#include "support/forwarding_store.hpp"
#include "support/temp_dir.hpp"
#include "workers/wiki/orchestrator/file_hasher.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

namespace fs = std::filesystem;

constexpr const char* kHashOfA = "87428fc522803d31065e7bce3cf03fe475096631e5e07bbd7a0fde60c4cf25c7";

// Counts every read and which paths were read.
struct CountingReader {
  std::shared_ptr<std::atomic<int>> reads = std::make_shared<std::atomic<int>>(0);
  std::shared_ptr<std::multiset<std::string>> paths =
      std::make_shared<std::multiset<std::string>>();
  std::shared_ptr<std::mutex> mutex = std::make_shared<std::mutex>();
  FileReader reader() const {
    return [*this](const fs::path& path) {
      ++*reads;
      std::lock_guard lock(*mutex);
      paths->insert(path.filename().string());
      return read_whole_file(path);
    };
  }
};

class Generator : public ::testing::Test {
 protected:
  // A file written an hour ago, so its stamp is old enough to cache.
  void write_old(const std::string& path, const std::string& text) {
    fs::create_directories((dir_.path() / path).parent_path());
    std::ofstream(dir_.path() / path, std::ios::binary) << text;
    fs::last_write_time(dir_.path() / path,
                        fs::file_time_type::clock::now() - std::chrono::hours(1));
  }
  void write_three() {
    write_old("src/a.cpp", "a\n");
    write_old("src/b.cpp", "b\n");
    write_old("lib/c.py", "c\n");
  }
  // The first build, and every page it plans saved.
  void build_and_save_all() {
    auto host = generator();
    for (const auto& plan : host->build(false, false).plans) {
      host->save_page(plan->page_id, "# " + plan->page_id + "\n", std::nullopt, std::nullopt);
    }
  }
  // A generator as a new process would make it.
  std::unique_ptr<WikiGenerator> generator(const CountingReader& counter = {}) {
    WikiGeneratorOptions options;
    options.reader = counter.reader();
    options.progress = false;
    return std::make_unique<WikiGenerator>(dir_.path(), "main", nullptr, options);
  }
  kodrune_test::TempDir dir_;
};

TEST_F(Generator, RebuildOverUnchangedRepositoryReadsNoFileButOneJustModified) {
  write_three();
  // Too recently modified for its stamp to be trusted: hashed, never cached.
  std::ofstream(dir_.path() / "fresh.cpp") << "a\n";
  CountingReader first;
  generator(first)->build(false, false);
  EXPECT_EQ(first.reads->load(), 4);

  // A new process: only the store's cache carries over.
  CountingReader second;
  auto rebuilt = generator(second);
  rebuilt->build(false, false);
  EXPECT_EQ(second.reads->load(), 1);
  EXPECT_EQ(second.paths->count("fresh.cpp"), 1u);
  EXPECT_EQ(rebuilt->_source_hashes({"src/a.cpp"}),
            Json::parse(std::string("{\"src/a.cpp\": \"") + kHashOfA + "\"}"));

  write_old("src/b.cpp", "b changed\n");
  CountingReader third;
  generator(third)->build(false, false);
  EXPECT_EQ(third.paths->size() - third.paths->count("fresh.cpp"), 1u);
  EXPECT_EQ(third.paths->count("b.cpp"), 1u);
}

TEST_F(Generator, EachFileIsReadOnceInABuildWhateverAsksForIt) {
  write_old("src/a.cpp", "a\n");
  write_old("memory/orvane/steering.md", "Be brief.\n");
  CountingReader counter;
  auto host = generator(counter);
  host->build(false, false);
  host->_hashes_with_steering({"src/a.cpp", "src/a.cpp"});
  host->_source_hashes({"src/a.cpp", "./src//a.cpp"});
  // The source file and the steering text, once each.
  EXPECT_EQ(counter.reads->load(), 2);
  EXPECT_EQ(counter.paths->count("steering.md"), 1u);
}

TEST_F(Generator, ManyFilesAreHashedOnAllCoresWithTheSameResult) {
  std::vector<std::string> paths;
  for (int i = 0; i < 300; ++i) {
    paths.push_back("many/f" + std::to_string(i) + ".txt");
    write_old(paths.back(), "a\n");
  }
  CountingReader counter;
  orchestrator::FileHasher hasher(dir_.path(), counter.reader(), false);
  paths.push_back("many/missing.txt");
  const Json hashes = hasher.hashes(paths);
  EXPECT_EQ(hashes.size(), 300u);
  EXPECT_EQ(counter.reads->load(), 300);
  for (const auto& [path, hash] : hashes.items()) EXPECT_EQ(hash, kHashOfA) << path;
  EXPECT_EQ(hasher.take_new_entries().size(), 300u);
}

TEST_F(Generator, StampsTakenByTheIndexStandInForAskingTheFileSystem) {
  write_old("src/a.cpp", "a\n");
  CountingReader counter;
  orchestrator::FileHasher hasher(dir_.path(), counter.reader(), false);
  // A cached entry the file on disk does not match: only a trusted stamp
  // can make it serve.
  hasher.load_cache({{"src/a.cpp", CachedFileHash{{999, 1, 2}, "cafe"}}});
  hasher.prefetch({"src/a.cpp"}, {FileStamp{999, 1, 2}});
  EXPECT_EQ(hasher.hashes({"src/a.cpp"}), Json::parse(R"({"src/a.cpp": "cafe"})"));
  EXPECT_EQ(counter.reads->load(), 0);

  EXPECT_THROW(hasher.prefetch({"src/a.cpp", "src/b.cpp"}, {FileStamp{}}), ValueError);
}

TEST_F(Generator, EveryBuildAndSaveReadsTheRowsOnceWhateverItWrites) {
  write_three();
  WikiGeneratorOptions options;
  options.progress = false;
  // One unit's page: lib/ goes to the catch-all page, whose row a second
  // build must leave alone.
  options.planner.page_budget = 1;
  SqliteWikiStore sqlite(SqliteWikiStore::default_path(dir_.path()));
  auto owned = std::make_unique<kodrune_test::CountingStore>(sqlite);
  kodrune_test::CountingStore& store = *owned;
  WikiGenerator host(dir_.path(), "main", std::move(owned), options);
  struct Step {
    std::string what;
    std::function<void()> run;
    int writes;  // -1: any number
  };
  const std::vector<Step> steps = {
      // overview, module-src and the catch-all page
      {"first build", [&] { EXPECT_TRUE(host.build(false, false).plans.back()->catch_all); }, 3},
      {"unchanged rebuild", [&] { host.build(false, false); }, 0},
      {"save", [&] { host.save_page("module-src", "# src\n", std::nullopt, std::nullopt); }, 1},
      {"build that retires a page",
       [&] {
         fs::remove(dir_.path() / "lib/c.py");
         host.build(false, false);
       },
       1},
      {"replan", [&] { host.build(true, false); }, -1},
  };
  for (const auto& step : steps) {
    store.reset();
    step.run();
    EXPECT_EQ(store.loads, 1) << step.what;
    if (step.writes >= 0) {
      EXPECT_EQ(store.writes, step.writes) << step.what;
    }
  }
  // What the builds kept in step is what the store holds.
  EXPECT_EQ(host._existing(), host.repository().load_pages("main"));
  EXPECT_FALSE(host._existing().contains("module-additional"));
}

TEST_F(Generator, ReadFailureNamesTheFile) {
  write_old("src/a.cpp", "a\n");
  WikiGeneratorOptions options;
  options.reader = [](const fs::path& path) -> std::string {
    throw OsError("cannot read " + path.string() + ": Permission denied");
  };
  options.progress = false;
  WikiGenerator host(dir_.path(), "main", nullptr, options);
  try {
    host.build(false, false);
    FAIL() << "no error";
  } catch (const OsError& e) {
    EXPECT_NE(std::string(e.what()).find("src/a.cpp: Permission denied"), std::string::npos);
  }
}

TEST_F(Generator, WrittenPageIsStaleForTheReasonThatMadeIt) {
  write_three();
  struct Case {
    std::string name;
    std::function<void(WikiGenerator&)> change;
    bool force;
    std::string why;
  };
  const Case cases[] = {
      {"steering",
       [&](WikiGenerator&) { write_old("memory/orvane/steering.md", "Write for operators.\n"); },
       false, "the steering changed"},
      {"forced", [](WikiGenerator&) {}, true, "forced"},
      {"marked", [](WikiGenerator& host) { host._mark_synthesis_stale({"module-src"}); }, false,
       "marked stale"},
      {"file and steering",
       [&](WikiGenerator&) {
         write_old("src/a.cpp", "a changed\n");
         write_old("memory/orvane/steering.md", "Write for newcomers.\n");
       },
       false, "files changed: src/a.cpp; the steering changed"},
  };
  build_and_save_all();
  for (const auto& c : cases) {
    auto host = generator();
    c.change(*host);
    const BuildResult result = host->build(false, c.force);
    const auto why = result.why.find("module-src");
    ASSERT_NE(why, result.why.end()) << c.name;
    EXPECT_EQ(why->second, c.why) << c.name;
    // Saved again, the page is fresh until the next change.
    host->save_page("module-src", "# again\n", std::nullopt, std::nullopt);
    EXPECT_EQ(generator()->build(false, false).stale.count("module-src"), 0u) << c.name;
  }
}

TEST_F(Generator, StoredBodyPathLeavingTheWikiIsRefusedAndABuildRepairsIt) {
  write_three();
  build_and_save_all();
  const fs::path outside = dir_.path() / "memory/outside.md";
  {
    SqliteWikiStore store(SqliteWikiStore::default_path(dir_.path()));
    store.db().execute("UPDATE wiki_pages SET rel_path = ? WHERE page_id = ?",
                       {std::string("../../outside.md"), std::string("module-src")});
  }
  try {
    generator()->save_page("module-src", "# src\n", std::nullopt, std::nullopt);
    FAIL() << "the stored rel_path was followed";
  } catch (const ValueError& e) {
    EXPECT_NE(std::string(e.what()).find("\"../../outside.md\" would leave"), std::string::npos)
        << e.what();
  }
  EXPECT_FALSE(fs::exists(outside));
  // A build brings the row's structure back to the plan.
  const BuildResult rebuilt = generator()->build(false, false);
  EXPECT_EQ(rebuilt.stale.count("module-src"), 0u);
  EXPECT_EQ(generator()->repository().load_pages("main").at("module-src")["rel_path"],
            "pages/module-src.md");
  generator()->save_page("module-src", "# src\n", std::nullopt, std::nullopt);
  EXPECT_FALSE(fs::exists(outside));
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

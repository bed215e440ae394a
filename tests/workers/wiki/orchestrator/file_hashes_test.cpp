// The orchestrator's file hashing: the stamp-keyed cache in the store means a
// build over an unchanged repository reads no file, and each file is read at
// most once per build.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <fstream>
#include <mutex>
#include <set>

#include "support/forwarding_store.hpp"
#include "support/temp_dir.hpp"
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

class FileHashes : public ::testing::Test {
 protected:
  // A file written an hour ago, so its stamp is old enough to cache.
  void write_old(const std::string& path, const std::string& text) {
    fs::create_directories((dir_.path() / path).parent_path());
    std::ofstream(dir_.path() / path, std::ios::binary) << text;
    fs::last_write_time(dir_.path() / path,
                        fs::file_time_type::clock::now() - std::chrono::hours(1));
  }
  std::unique_ptr<WikiGenerator> generator(const CountingReader& counter) {
    WikiGeneratorOptions options;
    options.reader = counter.reader();
    options.progress = false;
    return std::make_unique<WikiGenerator>(dir_.path(), "main", nullptr, options);
  }
  kodrune_test::TempDir dir_;
};

TEST_F(FileHashes, RebuildOverUnchangedRepositoryReadsNoFile) {
  write_old("src/a.cpp", "a\n");
  write_old("src/b.cpp", "b\n");
  write_old("lib/c.py", "c\n");
  CountingReader first;
  generator(first)->build(false, false);
  EXPECT_EQ(first.reads->load(), 3);

  // A new process: only the store's cache carries over.
  CountingReader second;
  auto rebuilt = generator(second);
  rebuilt->build(false, false);
  EXPECT_EQ(second.reads->load(), 0);
  EXPECT_EQ(rebuilt->_source_hashes({"src/a.cpp"}),
            Json::parse(std::string("{\"src/a.cpp\": \"") + kHashOfA + "\"}"));

  write_old("src/b.cpp", "b changed\n");
  CountingReader third;
  generator(third)->build(false, false);
  EXPECT_EQ(third.reads->load(), 1);
  EXPECT_EQ(third.paths->count("b.cpp"), 1u);
}

TEST_F(FileHashes, EachFileIsReadOnceInABuildWhateverAsksForIt) {
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

TEST_F(FileHashes, RecentlyModifiedFilesAreHashedButNotCached) {
  std::ofstream(dir_.path() / "fresh.cpp") << "a\n";
  CountingReader first;
  generator(first)->build(false, false);
  CountingReader second;
  generator(second)->build(false, false);
  EXPECT_EQ(first.reads->load(), 1);
  EXPECT_EQ(second.reads->load(), 1);
}

TEST_F(FileHashes, ManyFilesAreHashedOnAllCoresWithTheSameResult) {
  std::vector<std::string> paths;
  for (int i = 0; i < 300; ++i) {
    paths.push_back("many/f" + std::to_string(i) + ".txt");
    write_old(paths.back(), "a\n");
  }
  CountingReader counter;
  FileHasher hasher(dir_.path(), counter.reader(), false);
  paths.push_back("many/missing.txt");
  const Json hashes = hasher.hashes(paths);
  EXPECT_EQ(hashes.size(), 300u);
  EXPECT_EQ(counter.reads->load(), 300);
  for (const auto& [path, hash] : hashes.items()) EXPECT_EQ(hash, kHashOfA) << path;
  EXPECT_EQ(hasher.take_new_entries().size(), 300u);
}

TEST_F(FileHashes, StampsTakenByTheIndexStandInForAskingTheFileSystem) {
  write_old("src/a.cpp", "a\n");
  CountingReader counter;
  FileHasher hasher(dir_.path(), counter.reader(), false);
  // A cached entry the file on disk does not match: only a trusted stamp
  // can make it serve.
  hasher.load_cache({{"src/a.cpp", CachedFileHash{999, 1, 2, "cafe"}}});
  hasher.prefetch({"src/a.cpp"}, {FileStamp{999, 1, 2}});
  EXPECT_EQ(hasher.hashes({"src/a.cpp"}), Json::parse(R"({"src/a.cpp": "cafe"})"));
  EXPECT_EQ(counter.reads->load(), 0);

  EXPECT_THROW(hasher.prefetch({"src/a.cpp", "src/b.cpp"}, {FileStamp{}}), ValueError);
}

TEST_F(FileHashes, EveryBuildAndSaveReadsTheRowsOnceWhateverItWrites) {
  write_old("src/a.cpp", "a\n");
  write_old("src/b.cpp", "b\n");
  write_old("lib/c.py", "c\n");
  WikiGeneratorOptions options;
  options.progress = false;
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
      {"first build", [&] { host.build(false, false); }, 3},  // overview, module-lib, module-src
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
  EXPECT_FALSE(host._existing().contains("module-lib"));
}

TEST_F(FileHashes, PathsLeavingTheRootAreRefused) {
  FileHasher hasher(dir_.path(), read_whole_file, false);
  for (const std::string path : {"../outside.cpp", "/etc/passwd", "a/../b.cpp"}) {
    EXPECT_THROW(hasher.hashes({path}), ValueError) << path;
  }
  EXPECT_EQ(hasher.hashes({"./a//b.cpp"}), Json::object()) << "inside the root, and no file";
}

TEST_F(FileHashes, ReadFailureNamesTheFile) {
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

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

// The one rule for repository paths, file content hashes, and the steering
// entry of a page's hash mapping. (Path normal form and the hash of a text
// show in the golden sections cases.)
#include "workers/wiki/util/repo_facts.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "support/temp_dir.hpp"
#include "workers/wiki/orchestrator/file_hasher.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

constexpr const char* kHashOfAbc =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

TEST(FileContentHash, HashesRegularFilesUnderTheRootOnly) {
  kodrune_test::TempDir tmp;
  const auto repo = tmp.path() / "repo";
  std::filesystem::create_directories(repo / "src");
  std::ofstream(repo / "src/a.txt", std::ios::binary) << "abc";
  std::ofstream(tmp.path() / "secret.txt") << "secret";
  std::filesystem::create_symlink(tmp.path() / "secret.txt", repo / "link.txt");
  EXPECT_EQ(util::file_content_hash(repo, "./src//a.txt"), kHashOfAbc);
  EXPECT_EQ(util::file_content_hash(repo, "src/missing.txt"), std::nullopt);
  EXPECT_EQ(util::file_content_hash(repo, "src"), std::nullopt);
  // A link inside the tree that points out of it is no repository file.
  EXPECT_EQ(util::file_content_hash(repo, "link.txt"), std::nullopt);
}

// One rule for every reader of a repository path: no absolute path and no
// ".." component, even one that climbs back inside.
TEST(RepoPath, AbsoluteAndDotDotPathsAreRefusedByEveryReader) {
  kodrune_test::TempDir tmp;
  std::filesystem::create_directories(tmp.path() / "src");
  std::ofstream(tmp.path() / "src/a.txt", std::ios::binary) << "abc";
  orchestrator::FileHasher hasher(tmp.path(), read_whole_file, false);
  for (const char* path : {"../outside.txt", "src/../../outside.txt", "src/../src/a.txt",
                           "a/../b.cpp", "/etc/hostname"}) {
    EXPECT_THROW(util::_repo_path(path), ValueError) << path;
    EXPECT_THROW(util::file_content_hash(tmp.path(), path), ValueError) << path;
    EXPECT_THROW(hasher.hashes({path}), ValueError) << path;
    EXPECT_THROW(path_inside(tmp.path(), path, "page"), ValueError) << path;
  }
  EXPECT_THROW(util::_repo_path("\\server\\x"), ValueError);
  EXPECT_EQ(util::_repo_path(".\\src//a.txt"), "src/a.txt");
  EXPECT_EQ(hasher.hashes({"./src//a.txt", "src/none.txt"}), (Json{{"src/a.txt", kHashOfAbc}}));
}

TEST(HashesWithSteering, HashesDistinctSortedFilesThenAnySteeringEntry) {
  kodrune_test::TempDir tmp;
  std::filesystem::create_directories(tmp.path() / "memory/orvane");
  std::ofstream(tmp.path() / "b.py", std::ios::binary) << "abc";
  std::ofstream(tmp.path() / "a.py", std::ios::binary) << "";
  WikiGeneratorOptions options;
  options.progress = false;
  WikiGenerator unsteered(tmp.path(), "main", nullptr, options);
  EXPECT_EQ(unsteered._hashes_with_steering({}).dump(), "{}");
  EXPECT_EQ(unsteered._hashes_with_steering({"b.py"}), (Json{{"b.py", kHashOfAbc}}));

  std::ofstream(tmp.path() / "memory/orvane/steering.md", std::ios::binary)
      << "Write for operators.";
  WikiGenerator steered(tmp.path(), "main", nullptr, options);
  EXPECT_EQ(
      steered._hashes_with_steering({"b.py", "gone.py", "a.py", "b.py"}).dump(),
      R"({"a.py":"e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855",)"
      R"("b.py":")" +
          std::string(kHashOfAbc) +
          R"(","__steering__":"e602dc1d73126f3be7d7ddb7396dc15796c8a54495c90b49c4de202049261aed"})");
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

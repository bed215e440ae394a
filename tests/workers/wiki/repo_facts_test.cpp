// Path normal form and content hashes.
#include "zenthar_kodrune/workers/wiki/repo_facts.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "support/temp_dir.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

TEST(Norm, DropsEmptyAndDotSegmentsAndKeepsDotDot) {
  const std::pair<const char*, const char*> cases[] = {
      {"./src//x.cpp", "src/x.cpp"},
      {"a/./b/", "a/b"},
      {"/x", "x"},
      {"src\\win\\y.cpp", "src/win/y.cpp"},
      {"a/../b", "a/../b"},
      {"", ""},
      {"./", ""},
  };
  for (const auto& [path, normal] : cases) EXPECT_EQ(_norm(path), normal) << path;
}

TEST(TextHash, IsLowercaseHexSha256OfTheBytes) {
  EXPECT_EQ(_text_hash(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(_text_hash("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(FileContentHash, HashesRegularFilesUnderTheRootOnly) {
  kodrune_test::TempDir tmp;
  std::filesystem::create_directories(tmp.path() / "src");
  std::ofstream(tmp.path() / "src/a.txt", std::ios::binary) << "abc";
  EXPECT_EQ(file_content_hash(tmp.path(), "src/a.txt"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(file_content_hash(tmp.path(), "./src//a.txt"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(file_content_hash(tmp.path(), "src/../src/a.txt"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(file_content_hash(tmp.path(), "src/missing.txt"), std::nullopt);
  EXPECT_EQ(file_content_hash(tmp.path(), "src"), std::nullopt);
}

TEST(FileContentHash, PathLeavingTheRootIsAnError) {
  kodrune_test::TempDir tmp;
  for (const char* path : {"../outside.txt", "src/../../outside.txt", "/etc/hostname"}) {
    EXPECT_THROW(file_content_hash(tmp.path() / "repo", path), ValueError) << path;
  }
}

TEST(FileContentHash, LinkPointingOutOfTheTreeIsNotARepositoryFile) {
  kodrune_test::TempDir tmp;
  std::filesystem::create_directories(tmp.path() / "repo");
  std::ofstream(tmp.path() / "secret.txt") << "secret";
  std::filesystem::create_symlink(tmp.path() / "secret.txt", tmp.path() / "repo/link.txt");
  EXPECT_EQ(file_content_hash(tmp.path() / "repo", "link.txt"), std::nullopt);
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

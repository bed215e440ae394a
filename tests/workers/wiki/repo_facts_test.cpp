// Path normal form, the one rule for repository paths, content hashes, and
// the steering entry of a page's hash mapping.
#include "workers/wiki/repo_facts.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "support/temp_dir.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

constexpr const char* kHashOfAbc =
    "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

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
  EXPECT_EQ(_text_hash("abc"), kHashOfAbc);
}

TEST(FileContentHash, HashesRegularFilesUnderTheRootOnly) {
  kodrune_test::TempDir tmp;
  const auto repo = tmp.path() / "repo";
  std::filesystem::create_directories(repo / "src");
  std::ofstream(repo / "src/a.txt", std::ios::binary) << "abc";
  std::ofstream(tmp.path() / "secret.txt") << "secret";
  std::filesystem::create_symlink(tmp.path() / "secret.txt", repo / "link.txt");
  EXPECT_EQ(file_content_hash(repo, "./src//a.txt"), kHashOfAbc);
  EXPECT_EQ(file_content_hash(repo, "src/missing.txt"), std::nullopt);
  EXPECT_EQ(file_content_hash(repo, "src"), std::nullopt);
  // A link inside the tree that points out of it is no repository file.
  EXPECT_EQ(file_content_hash(repo, "link.txt"), std::nullopt);
}

// One rule for every reader of a repository path: no absolute path and no
// ".." component, even one that climbs back inside.
TEST(RepoPath, AbsoluteAndDotDotPathsAreRefusedByEveryReader) {
  kodrune_test::TempDir tmp;
  std::filesystem::create_directories(tmp.path() / "src");
  std::ofstream(tmp.path() / "src/a.txt", std::ios::binary) << "abc";
  FileHasher hasher(tmp.path(), read_whole_file, false);
  for (const char* path : {"../outside.txt", "src/../../outside.txt", "src/../src/a.txt",
                           "a/../b.cpp", "/etc/hostname"}) {
    EXPECT_THROW(_repo_path(path), ValueError) << path;
    EXPECT_THROW(file_content_hash(tmp.path(), path), ValueError) << path;
    EXPECT_THROW(hasher.hashes({path}), ValueError) << path;
    EXPECT_THROW(path_inside(tmp.path(), path, "page"), ValueError) << path;
  }
  EXPECT_THROW(_repo_path("\\server\\x"), ValueError);
  EXPECT_EQ(_repo_path(".\\src//a.txt"), "src/a.txt");
  EXPECT_EQ(hasher.hashes({"./src//a.txt", "src/none.txt"}), (Json{{"src/a.txt", kHashOfAbc}}));
}

class Host final : public SteeringMixin {
 public:
  explicit Host(std::string steering) : steering_(std::move(steering)) {}
  const std::string& branch() const override { return branch_; }
  const std::filesystem::path& pages_dir() const override { return pages_dir_; }
  const Existing& _existing() const override { return existing_; }
  WikiStore& repository() override { throw std::logic_error("no store"); }
  Json _source_hashes(const std::vector<std::string>& paths) override {
    asked.push_back(paths);
    Json hashes = Json::object();
    for (const auto& path : paths) {
      if (path != "gone.py") hashes[path] = "h-" + path;
    }
    return hashes;
  }
  std::vector<std::vector<std::string>> asked;

 protected:
  std::string _steering_text() override { return steering_; }

 private:
  std::string steering_;
  std::string branch_ = "main";
  std::filesystem::path pages_dir_;
  Existing existing_;
};

TEST(HashesWithSteering, HashesDistinctSortedFilesThenAnySteeringEntry) {
  Host host("Write for operators.");
  const Json hashes = host._hashes_with_steering({"b.py", "gone.py", "a.py", "b.py"});
  EXPECT_EQ(host.asked, (std::vector<std::vector<std::string>>{{"a.py", "b.py", "gone.py"}}));
  EXPECT_EQ(hashes.dump(),
            R"({"a.py":"h-a.py","b.py":"h-b.py","__steering__":")" +
                std::string("e602dc1d73126f3be7d7ddb7396dc15796c8a54495c90b49c4de202049261aed") +
                "\"}");
  Host unsteered("");
  EXPECT_EQ(unsteered._hashes_with_steering({}).dump(), "{}");
  EXPECT_EQ(unsteered._hashes_with_steering({"a.py"}).dump(), R"({"a.py":"h-a.py"})");
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

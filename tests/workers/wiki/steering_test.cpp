// The steering entry of a page's hash mapping.
#include "zenthar_kodrune/workers/wiki/steering.hpp"

#include <gtest/gtest.h>

namespace zenthar_kodrune::workers::wiki {
namespace {

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

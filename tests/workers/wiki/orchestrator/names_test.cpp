// Which branch names may name a wiki folder: git's ref-name rules, folders
// that would overlap the files beside them, and the file system's lengths.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using ::testing::HasSubstr;

// The message check_branch_name refuses `branch` with, or "" when it takes it.
std::string refusal_of(const std::string& branch) {
  try {
    check_branch_name(branch);
  } catch (const ValueError& error) {
    return error.what();
  }
  return "";
}

// `bytes` bytes in components of 200, well below the longest a folder may
// have, so only the length of the whole can break a rule.
std::string name_of_length(std::size_t bytes) {
  std::string name;
  for (std::size_t i = 0; i < bytes; ++i) {
    name.push_back(i % 201 == 200 && i + 1 < bytes ? '/' : 'a');
  }
  return name;
}

TEST(BranchName, RefusesWhatGitRefusesSayingWhichRule) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "it is empty"},
      {"@", "it is \"@\""},
      {"..", "it holds \"..\""},
      {"a/../b", "it holds \"..\""},
      {"a..b", "it holds \"..\""},
      {"a@{1}", "it holds \"@{\""},
      {"/main", "it begins with \"/\""},
      {"-main", "it begins with \"-\""},
      {"main/", "it ends with \"/\""},
      {"main.", "it ends with \".\""},
      {"a//b", "it has an empty path component"},
      {".hidden", "a component begins with \".\""},
      {"a/.hidden", "a component begins with \".\""},
      {"main.lock", "a component ends with \".lock\""},
      {"main.lock/x", "a component ends with \".lock\""},
      {"a b", "it holds a space"},
      {std::string("a\0b", 3), "it holds a control character"},
      {"a\tb", "it holds a control character"},
      {"a\nb", "it holds a control character"},
      {"a\x1f", "it holds a control character"},
      {"a\x7f", "it holds a control character"},
      {"a~1", "it holds \"~\""},
      {"a^1", "it holds \"^\""},
      {"a:b", "it holds \":\""},
      {"a?", "it holds \"?\""},
      {"a*", "it holds \"*\""},
      {"a[b", "it holds \"[\""},
      {"a\\b", "it holds \"\\\""},
  };
  for (const auto& [branch, rule] : cases) {
    const std::string message = refusal_of(branch);
    EXPECT_THAT(message, HasSubstr("invalid branch name")) << branch;
    EXPECT_THAT(message, HasSubstr(": " + rule)) << branch;
  }
}

// memory/orvane holds the steering file and an older store beside the branch
// folders, and a branch folder holds its pages and plan log: no branch may
// name a folder on top of them.
TEST(BranchName, RefusesAFolderThatWouldOverlapTheFilesBesideIt) {
  const std::pair<std::string, std::string> cases[] = {
      {"steering.md", "overlap memory/orvane/steering.md"},
      {"steering.md/x", "overlap memory/orvane/steering.md"},
      {"wiki.db", "overlap memory/orvane/wiki.db"},
      {"wiki.db-wal", "overlap memory/orvane/wiki.db-wal"},
      {"main/pages", "overlap another branch's pages"},
      {"main/pages/x", "overlap another branch's pages"},
      {"main/plan-log.jsonl", "overlap another branch's plan-log.jsonl"},
      {"a/b/plan-log.jsonl.tmp", "overlap another branch's plan-log.jsonl.tmp"},
  };
  for (const auto& [branch, rule] : cases) {
    EXPECT_THAT(refusal_of(branch), HasSubstr(rule)) << branch;
  }
}

// Each is one step from a rule above and must still pass.
TEST(BranchName, TakesNamesNextToTheRules) {
  for (const char* branch :
       {"main", "feature/x", "release-1.0", "a.b", "a-", "user@host", "@x", "a@b{c}", "a.lockx",
        "lock", "x/steering.md", "x/wiki.db", "pages", "pages/x", "main/pagesx", "plan-log.jsonl",
        "caf\xc3\xa9", "bad\xff"}) {
    EXPECT_EQ(refusal_of(branch), "") << branch;
  }
}

TEST(BranchName, TakesTheLongestNamesAndRefusesOneByteMore) {
  EXPECT_EQ(refusal_of(name_of_length(MAX_BRANCH_BYTES)), "");
  EXPECT_EQ(refusal_of(std::string(MAX_NAME_BYTES, 'a')), "");

  EXPECT_EQ(refusal_of(name_of_length(MAX_BRANCH_BYTES + 1)),
            "invalid branch name of " + std::to_string(MAX_BRANCH_BYTES + 1) +
                " bytes: a branch name may hold at most " + std::to_string(MAX_BRANCH_BYTES));
  EXPECT_THAT(refusal_of("x/" + std::string(MAX_NAME_BYTES + 1, 'a')),
              HasSubstr("a component is longer than " + std::to_string(MAX_NAME_BYTES)));
}

// A refused name is shown escaped, so the message stays one line of UTF-8.
TEST(BranchName, QuotesARefusedNameEscaped) {
  EXPECT_EQ(refusal_of("bad\xff\nname"),
            "invalid branch name \"bad\\xff\\nname\": it holds a control character");
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

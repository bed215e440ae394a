// Golden cases: each file of tests/golden is JSON Lines, each line
// {"name": ..., "request": {...}, "response": {...}} worked out by hand. A
// line's "name" starts a case and says the behaviour it shows; a line without
// one continues the case above it, for requests that build on what an
// earlier request left behind (a log appended to). Each case is its own test,
// fed in order to its own `kodrune-wiki-harness rpc` process, and each
// response line must equal the expected response written compactly.
//
// "@TMP@" in a line stands for a fresh temporary folder of that case. A line
// may give "response_regex" (a PCRE2 pattern the whole response line must
// match) instead of "response", for responses holding a clock time.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "support/temp_dir.hpp"
#include "zenthar_kodrune/workers/wiki/regex.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace {

namespace fs = std::filesystem;
using zenthar_kodrune::workers::wiki::Json;

struct GoldenLine {
  int number = 0;
  std::string text;  // as written, "@TMP@" not yet replaced
};

// A case, or, when `error` is set, a file that could not be read into cases:
// that fails as a test of its own instead of stopping every test at start-up.
struct GoldenCase {
  fs::path file;
  std::string name;
  std::vector<GoldenLine> lines;
  std::string error;
};

// Where a case begins, which gtest shows beside the test's name.
void PrintTo(const GoldenCase& golden, std::ostream* out) {
  *out << golden.file.filename().string();
  if (!golden.lines.empty()) *out << ":" << golden.lines.front().number;
}

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// The name becomes part of a test name, which gtest allows only letters,
// digits and underscores; lower case keeps the names one style.
bool is_snake_case(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
  });
}

std::vector<GoldenCase> read_cases(const fs::path& file) {
  std::vector<GoldenCase> cases;
  std::set<std::string> names;
  const auto fail = [&](int number, const std::string& why) {
    GoldenCase bad;
    bad.file = file;
    bad.name = "line_" + std::to_string(number) + "_is_not_a_case";
    bad.lines.push_back({number, ""});
    bad.error = file.filename().string() + ":" + std::to_string(number) + ": " + why;
    cases.push_back(std::move(bad));
  };
  std::ifstream in(file);
  std::string text;
  bool open_case = false;  // whether a line without a name has a case to join
  for (int number = 1; std::getline(in, text); ++number) {
    if (text.find_first_not_of(" \t\r") == std::string::npos) continue;
    const Json entry = Json::parse(text, nullptr, false);
    if (entry.is_discarded() || !entry.is_object()) {
      fail(number, "is not a JSON object");
      open_case = false;
      continue;
    }
    if (!entry.contains("request")) {
      fail(number, "has no \"request\"");
      open_case = false;
      continue;
    }
    if (entry.contains("response") == entry.contains("response_regex")) {
      fail(number, "needs one of \"response\" and \"response_regex\"");
      open_case = false;
      continue;
    }
    if (!entry.contains("name")) {
      if (!open_case) {
        fail(number, "has no \"name\" and no case above it to continue");
        continue;
      }
      cases.back().lines.push_back({number, text});
      continue;
    }
    const Json& name = entry["name"];
    if (!name.is_string() || !is_snake_case(name.get<std::string>())) {
      fail(number, "\"name\" must be snake_case text");
      open_case = false;
      continue;
    }
    if (!names.insert(name.get<std::string>()).second) {
      fail(number, "the name \"" + name.get<std::string>() + "\" is taken by an earlier case");
      open_case = false;
      continue;
    }
    cases.push_back({file, name.get<std::string>(), {{number, text}}, ""});
    open_case = true;
  }
  return cases;
}

std::vector<GoldenCase> golden_cases() {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(KODRUNE_GOLDEN_DIR)) {
    if (entry.path().extension() == ".jsonl") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  std::vector<GoldenCase> cases;
  for (const auto& file : files) {
    auto more = read_cases(file);
    cases.insert(cases.end(), std::make_move_iterator(more.begin()),
                 std::make_move_iterator(more.end()));
  }
  return cases;
}

std::string test_name(const GoldenCase& golden) {
  std::string name = golden.file.stem().string() + "__" + golden.name;
  for (auto& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return name;
}

class Golden : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(Golden, RpcAnswersEveryLineAsWritten) {
  const GoldenCase& golden = GetParam();
  ASSERT_TRUE(golden.error.empty()) << golden.error;
  const kodrune_test::TempDir work;
  fs::create_directories(work.path() / "tmp");
  const std::string tmp = (work.path() / "tmp").string();

  std::vector<Json> expected;
  {
    std::ofstream requests(work.path() / "requests.jsonl");
    for (const auto& line : golden.lines) {
      const Json entry = Json::parse(replace_all(line.text, "@TMP@", tmp));
      requests << entry["request"].dump() << '\n';
      expected.push_back(entry);
    }
  }

  const std::string command = std::string("'") + KODRUNE_WIKI_HARNESS_EXE + "' rpc < '" +
                              (work.path() / "requests.jsonl").string() + "' > '" +
                              (work.path() / "responses.jsonl").string() + "'";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;

  std::ifstream responses(work.path() / "responses.jsonl");
  std::vector<std::string> actual;
  for (std::string line; std::getline(responses, line);) actual.push_back(line);
  ASSERT_EQ(actual.size(), expected.size())
      << golden.name << " at " << golden.file.filename().string() << ":"
      << golden.lines.front().number;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const Json& entry = expected[i];
    const std::string where = golden.name + " at " + golden.file.filename().string() + ":" +
                              std::to_string(golden.lines[i].number);
    if (entry.contains("response_regex")) {
      const zenthar_kodrune::workers::wiki::Regex pattern(
          entry["response_regex"].get<std::string>());
      EXPECT_TRUE(pattern.full_match(actual[i])) << where << "\n  actual: " << actual[i];
    } else {
      EXPECT_EQ(actual[i], entry["response"].dump()) << where;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, Golden, ::testing::ValuesIn(golden_cases()),
                         [](const auto& info) { return test_name(info.param); });

}  // namespace

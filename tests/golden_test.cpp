// Golden cases: each file of tests/golden is JSON Lines, each line
// {"request": {...}, "response": {...}} worked out by hand. The requests of a
// file are fed, in order, to one `kodrune-wiki-harness rpc` process, and each response
// line must equal the expected response written compactly.
//
// "@TMP@" in a line stands for a fresh temporary folder of that file. A line
// may give "response_regex" (a PCRE2 pattern the whole response line must
// match) instead of "response", for responses holding a clock time.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "zenthar_kodrune/workers/wiki/regex.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace {

namespace fs = std::filesystem;
using zenthar_kodrune::workers::wiki::Json;

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::vector<fs::path> golden_files() {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(KODRUNE_GOLDEN_DIR)) {
    if (entry.path().extension() == ".jsonl") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

class Golden : public ::testing::TestWithParam<fs::path> {};

TEST_P(Golden, RpcAnswersEveryLineAsWritten) {
  const fs::path source = GetParam();
  const fs::path work = fs::temp_directory_path() / ("kodrune-golden-" + source.stem().string() +
                                                     "-" + std::to_string(::getpid()));
  fs::remove_all(work);
  fs::create_directories(work / "tmp");
  const std::string tmp = (work / "tmp").string();

  std::ifstream in(source);
  std::string line;
  std::vector<Json> expected;
  std::ofstream requests(work / "requests.jsonl");
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    Json entry = Json::parse(replace_all(line, "@TMP@", tmp));
    ASSERT_TRUE(entry.contains("request")) << source << ":" << number << " has no \"request\"";
    requests << entry["request"].dump() << '\n';
    entry["line"] = number;
    expected.push_back(std::move(entry));
  }
  requests.close();

  const std::string command = std::string("'") + KODRUNE_WIKI_HARNESS_EXE + "' rpc < '" +
                              (work / "requests.jsonl").string() + "' > '" +
                              (work / "responses.jsonl").string() + "'";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;

  std::ifstream responses(work / "responses.jsonl");
  std::vector<std::string> actual;
  while (std::getline(responses, line)) actual.push_back(line);
  ASSERT_EQ(actual.size(), expected.size()) << source;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const auto& entry = expected[i];
    const std::string where =
        source.filename().string() + ":" + std::to_string(entry["line"].get<int>());
    if (entry.contains("response_regex")) {
      const zenthar_kodrune::workers::wiki::Regex pattern(
          entry["response_regex"].get<std::string>());
      EXPECT_TRUE(pattern.full_match(actual[i])) << where << "\n  actual: " << actual[i];
    } else {
      EXPECT_EQ(actual[i], entry["response"].dump()) << where;
    }
  }
  fs::remove_all(work);
}

INSTANTIATE_TEST_SUITE_P(Files, Golden, ::testing::ValuesIn(golden_files()), [](const auto& info) {
  std::string name = info.param.stem().string();
  for (auto& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
  }
  return name;
});

}  // namespace

// The rpc loop over file descriptors: lines cut from large blocks, whatever
// their length and however the input ends, answered in order; a line that is
// hostile JSON is refused and the next one served.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kodrune-wiki/rpc.hpp"
#include "support/temp_dir.hpp"

namespace kodrune_cli {
namespace {

std::vector<std::string> serve(const std::string& input) {
  OpTable ops;
  register_component_ops(ops);
  kodrune_test::TempDir dir;
  const auto in_path = dir.path() / "in";
  const auto out_path = dir.path() / "out";
  std::ofstream(in_path, std::ios::binary) << input;
  const int in = ::open(in_path.c_str(), O_RDONLY);
  const int out = ::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  EXPECT_EQ(serve_rpc_fd(ops, in, out), 0);
  ::close(in);
  ::close(out);
  std::ifstream answers(out_path, std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(answers, line);) lines.push_back(line);
  return lines;
}

std::string drift(int id, std::size_t padding = 0) {
  return "{\"id\": " + std::to_string(id) + ", \"pad\": \"" + std::string(padding, 'x') +
         "\", \"op\": \"drift_signal\", \"args\": {\"amendments\": [], \"plan_size\": 1}}";
}

std::string answer(int id) { return "{\"id\":" + std::to_string(id) + ",\"result\":null}"; }

TEST(RpcIo, AnswersEveryLineInOrderWhateverItsLengthAndEnding) {
  // Lines longer than a read block, lines across block boundaries, CRLF,
  // blank lines, and a last line with no newline.
  const std::string input = drift(1) + "\n\n  \t\n" + drift(2, 3u << 20) + "\r\n" + drift(3) +
                            "\n" + drift(4, (1u << 20) - 40) + "\n" + drift(5, 1u << 19) + "\n" +
                            drift(6);
  EXPECT_EQ(serve(input), (std::vector<std::string>{answer(1), answer(2), answer(3), answer(4),
                                                    answer(5), answer(6)}));
  EXPECT_TRUE(serve("").empty());
  // Many short lines in one block; some are not JSON, or are JSON no parser
  // should hold (a number past a double's range, nesting past any request).
  const std::pair<int, std::string> bad[] = {
      {777, "{not json"},
      {778, R"({"id": 1, "op": "drift_signal", "args": {"plan_size": 1e400}})"},
      {779, std::string(100000, '[')},
      {780, R"({"id": 3, "op": "drift_signal", "args": {"amendments": )" + std::string(60000, '[') +
                "}}"}};
  std::string many;
  std::vector<std::string> expected;
  for (int id = 0; id < 20000; ++id) {
    const auto found = std::find_if(std::begin(bad), std::end(bad),
                                    [&](const auto& entry) { return entry.first == id; });
    many += (found == std::end(bad) ? drift(id) : found->second) + "\n";
    expected.push_back(answer(id));
  }
  const auto answers = serve(many);
  ASSERT_EQ(answers.size(), expected.size());
  const std::string refused = R"({"id":null,"error":{"kind":"invalid_request","message":)";
  for (const auto& [id, line] : bad) {
    EXPECT_EQ(answers[id].rfind(refused + "\"malformed JSON", 0), 0u) << answers[id];
    expected[id] = answers[id];
  }
  EXPECT_NE(answers[778].find("number overflow"), std::string::npos) << answers[778];
  EXPECT_NE(answers[779].find("deeper than 512 levels"), std::string::npos) << answers[779];
  EXPECT_NE(answers[780].find("deeper than 512 levels"), std::string::npos) << answers[780];
  EXPECT_EQ(answers, expected);
}

}  // namespace
}  // namespace kodrune_cli

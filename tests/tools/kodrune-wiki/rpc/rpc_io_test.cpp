// The rpc loop over file descriptors: lines cut from large blocks, whatever
// their length and however the input ends, answered in order; a line that is
// hostile JSON is refused and the next one served. pin_plan read from the
// request's document answers as the op over values does.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kodrune-wiki/rpc/rpc.hpp"
#include "support/temp_dir.hpp"

namespace kodrune_cli::rpc {
namespace {

using ::testing::HasSubstr;

// The answers to `input`, read from a file or, `piped`, from a pipe that
// another thread writes in small pieces.
std::vector<std::string> serve(const std::string& input, bool piped = false) {
  OpTable ops;
  register_component_ops(ops);
  kodrune_test::TempDir dir;
  const auto in_path = dir.path() / "in";
  const auto out_path = dir.path() / "out";
  std::ofstream(in_path, std::ios::binary) << input;
  int in = ::open(in_path.c_str(), O_RDONLY);
  std::thread writer;
  if (piped) {
    ::close(in);
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    in = ends[0];
    writer = std::thread([&input, end = ends[1]] {
      for (std::size_t at = 0; at < input.size(); at += 4000) {
        const std::string_view piece = std::string_view(input).substr(at, 4000);
        EXPECT_EQ(::write(end, piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
      }
      ::close(end);
    });
  }
  const int out = ::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  EXPECT_EQ(serve_rpc_fd(ops, in, out), 0);
  if (writer.joinable()) writer.join();
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
  const std::vector<std::string> expected_six = {answer(1), answer(2), answer(3),
                                                 answer(4), answer(5), answer(6)};
  EXPECT_EQ(serve(input), expected_six);
  EXPECT_EQ(serve(input, true), expected_six);
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
  EXPECT_THAT(answers[778], HasSubstr("number overflow"));
  EXPECT_THAT(answers[779], HasSubstr("deeper than 512 levels"));
  EXPECT_THAT(answers[780], HasSubstr("deeper than 512 levels"));
  EXPECT_EQ(answers, expected);
}

// Answers each request with `op` read from the document and from values,
// expects the same bytes, and counts the answers that hold `answered`.
int answered_alike(const std::string& op, std::span<const std::string> requests,
                   std::string_view answered) {
  OpTable ops;
  register_component_ops(ops);
  EXPECT_TRUE(ops.at(op).from_document);
  OpTable from_values;
  from_values.emplace(op, RpcHandler(ops.at(op).from_values));
  int count = 0;
  for (const auto& request : requests) {
    const std::string answer = rpc_respond(ops, request);
    EXPECT_EQ(answer, rpc_respond(from_values, request)) << request;
    count += answer.find(answered) != std::string::npos ? 1 : 0;
  }
  return count;
}

std::string pin_request(const std::string& fresh, const std::string& existing,
                        const std::string& live, const std::string& more = "") {
  return R"({"id": 9, "op": "pin_plan", "args": {"fresh_plans": )" + fresh + R"(, "existing": )" +
         existing + R"(, "live_paths": )" + live + more + "}}";
}

// Every odd shape the document reader hands to the reader over values, and
// the common ones it reads itself: both must give the same bytes.
TEST(RpcIo, PinPlanFromTheDocumentAnswersAsFromValues) {
  const std::string plan_a =
      R"({"page_id": "module-a", "title": "a", "level": "module", "source_files": ["a/1.py", "a/2.py", "a/3.py"]})";
  const std::string plan_b =
      R"({"page_id": "module-b", "title": "b", "source_files": ["b/1.py", "b/2.py", "b/3.py"], "catch_all": false, "children": [], "topic": "t"})";
  const std::string fresh = "[" + plan_a + ", " + plan_b + "]";
  const std::string row_a =
      R"({"page_id": "module-a", "title": "A kept", "level": "module", "source_files": ["a/1.py", "a/2.py", "a/gone.py"], "status": "current", "rel_path": "pages/module-a.md", "extra": {"deep": [1, -0, 2.5]}})";
  const std::string row_old =
      R"({"page_id": "module-old", "title": "Old", "source_files": ["old/1.py"], "related_pages": ["module-a"], "content_hash": "c1"})";
  const std::string existing = R"({"module-a": )" + row_a + R"(, "module-old": )" + row_old + "}";
  const std::string live =
      R"(["a/1.py", "a/2.py", "a/3.py", "b/1.py", "b/2.py", "b/3.py", "x.py"])";
  const std::string requests[] = {
      pin_request(fresh, existing, live),
      pin_request(fresh, existing, live, R"(, "replan": 1)"),
      pin_request(fresh, existing, live, R"(, "replan": "", "replan": null)"),
      pin_request("[]", "{}", "[]"),
      // Plans: nulls and repeated keys read as the value would hold them,
      // and bad fields.
      pin_request(R"([{"page_id": "module-a", "title": null, "source_files": ["a/1.py"]}])",
                  existing, live),
      pin_request(R"([{"page_id": "module-a", "title": 5, "title": "ok"}])", existing, live),
      pin_request(R"([{"page_id": "module-a", "title": "ok", "title": 5}])", existing, live),
      pin_request(R"([{"page_id": "module-a", "catch_all": "yes"}])", existing, live),
      pin_request(R"([{"page_id": "module-a", "source_files": "a/1.py"}])", existing, live),
      pin_request(R"([{"page_id": "module-a", "source_files": ["a/1.py", 2]}])", existing, live),
      pin_request("[5]", existing, live),
      pin_request(R"({"plans": []})", existing, live),
      // Rows: not objects, repeated, without an id, with bad values, "-0".
      pin_request(fresh, "[]", live),
      pin_request(fresh, R"({"module-a": 5})", live),
      pin_request(fresh, R"({"module-a": 5, "module-a": )" + row_a + "}", live),
      pin_request(fresh, R"({"module-a": )" + row_a + R"(, "module-a": {"page_id": "module-a"}})",
                  live),
      pin_request(
          fresh,
          R"({"module-x": {"title": "no id", "status": "current", "source_files": ["x.py"]}})",
          live),
      pin_request(fresh,
                  R"({"module-x": {"page_id": "module-x", "title": 7, "source_files": ["x.py"]}})",
                  live),
      pin_request(fresh,
                  R"({"module-x": {"page_id": "module-x", "level": -0, "source_files": ["x.py"]}})",
                  live),
      pin_request(fresh, R"({"module-x": {"page_id": "module-x", "source_files": [1]}})", live),
      // Empty values read as missing ones, unless they replace a value.
      pin_request(
          fresh,
          R"({"module-a": {"page_id": "module-a", "title": "", "level": "", "importance": null, "description": 0, "page_type": false, "related_pages": [], "content_hash": {}, "source_files": ["a/1.py"]}})",
          live),
      pin_request(
          fresh,
          R"({"module-a": {"page_id": "module-a", "title": "Kept", "title": "", "content_hash": "c", "source_files": ["a/1.py"]}})",
          live),
      pin_request(
          R"([{"page_id": "module-a", "title": "a", "source_files": ["a/1.py"]}])",
          R"({"module-a": {"page_id": "module-a", "title": "Kept", "content_hash": "c", "content_hash": 0, "source_files": ["a/1.py"]}})",
          live),
      pin_request(
          R"([{"page_id": "module-a", "title": "a", "source_files": ["a/1.py"]}])",
          R"({"module-a": {"page_id": "module-a", "title": "Kept", "content_hash": "", "content_hash": "c", "level": 0, "level": "file", "source_files": ["a/1.py"]}})",
          live),
      // Paths, missing arguments, and which error comes first.
      pin_request(fresh, existing, R"("a/1.py")"),
      pin_request(fresh, existing, R"(["a/1.py", null])"),
      R"({"id": 9, "op": "pin_plan", "args": {"fresh_plans": [], "existing": {}}})",
      R"({"id": 9, "op": "pin_plan", "args": {"live_paths": 1, "existing": 2}})",
      R"({"id": 9, "op": "pin_plan", "args": {"fresh_plans": 3, "live_paths": 1}})",
      R"({"id": -0, "op": "pin_plan", "args": {"fresh_plans": [], "existing": {}, "live_paths": []}})",
      R"({"op": "pin_plan", "id": [1, {"a": null}], "args": {"fresh_plans": [], "existing": {}, "live_paths": []}})",
  };
  // Both kinds of answer are compared, not only errors.
  EXPECT_GE(answered_alike("pin_plan", requests, "\"result\":"), 8);
}

// Two sections, the first citing a.py and b.py, the second a.py again.
const std::string kCitingBody =
    R"("intro\n## One\nSee [a.py](a.py#L1-L4) and [b.py](b.py#L2-L3).\n## Two\nAgain [a.py](a.py#L1-L4).")";

std::string section_request(const std::string& citations, const std::string& hashes,
                            const std::string& body = kCitingBody) {
  return R"({"id": 4, "op": "section_map", "args": {"body": )" + body + R"(, "citations": )" +
         citations + R"(, "file_hashes": )" + hashes + "}}";
}

// The same for section_map: citations and hashes of the common shape are
// read in place, every other shape by the values' reader.
TEST(RpcIo, SectionMapFromTheDocumentAnswersAsFromValues) {
  const std::string cite_a = R"({"path": "a.py", "line_start": 1, "line_end": 4, "symbol": "run"})";
  const std::string cite_b = R"({"path": "b.py", "line_start": 2, "line_end": 3})";
  const std::string both = "[" + cite_a + ", " + cite_b + "]";
  const std::string hashes = R"({"a.py": "h1", "b.py": "h2"})";
  const std::string requests[] = {
      section_request(both, hashes),
      section_request("[]", "{}"),
      // A later citation of one identity wins; symbols null, empty, other.
      section_request(
          "[" + cite_a +
              R"(, {"path": "a.py", "line_start": 1, "line_end": 4, "symbol": "later"}])",
          hashes),
      section_request(R"([{"path": "a.py", "line_start": 1, "line_end": 4, "symbol": null}])",
                      hashes),
      section_request(R"([{"path": "a.py", "line_start": 1, "line_end": 4, "symbol": ""}])",
                      hashes),
      section_request(R"([{"path": "a.py", "line_start": 1, "line_end": 4, "symbol": ["x"]}])",
                      hashes),
      // Lines that are not 64-bit integers, paths that are not text.
      section_request(R"([{"path": "a.py", "line_start": 1.0, "line_end": 4}])", hashes),
      section_request(R"([{"path": "a.py", "line_start": "1", "line_end": 4}])", hashes),
      section_request(R"([{"path": "a.py", "line_start": -0, "line_end": 4}])", hashes),
      section_request(R"([{"path": "a.py", "line_start": 18446744073709551615, "line_end": 4}])",
                      hashes),
      section_request(R"([{"path": 7, "line_start": 1, "line_end": 4}])", hashes),
      section_request(R"([{"line_start": 1, "line_end": 4}])", hashes),
      section_request("[5]", hashes),
      // Hashes: repeated, null, not text, not a mapping.
      section_request(both, R"({"a.py": "h1", "a.py": null, "b.py": "h2", "b.py": "h3"})"),
      section_request(both, R"({"a.py": null, "a.py": "h4"})"),
      section_request(both, R"({"a.py": 5, "b.py": {"x": 1}})"),
      section_request(both, "[]"),
      section_request(both, "null"),
      section_request("null", hashes),
      section_request("{}", hashes),
      // The body, and missing arguments.
      section_request(both, hashes, "5"),
      R"({"id": 4, "op": "section_map", "args": {"body": "x", "citations": []}})",
      R"({"id": 4, "op": "section_map", "args": {"citations": [], "file_hashes": {}}})",
  };
  EXPECT_GE(answered_alike("section_map", requests, "\"hash\":"), 10);
}

}  // namespace
}  // namespace kodrune_cli::rpc

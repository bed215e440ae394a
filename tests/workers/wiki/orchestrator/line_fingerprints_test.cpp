#include "workers/wiki/orchestrator/line_fingerprints.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/temp_dir.hpp"
#include "workers/wiki/orchestrator/file_hasher.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using Lines = std::vector<std::string>;

std::string text_of(const Lines& lines) {
  std::string out;
  for (const auto& line : lines) out += line + "\n";
  return out;
}

std::vector<std::uint64_t> hashes(const Lines& lines) {
  return orchestrator::line_hashes(text_of(lines));
}

TEST(LineHashes, CountLinesAsCitationsDo) {
  EXPECT_EQ(orchestrator::line_hashes("").size(), 0u);
  EXPECT_EQ(orchestrator::line_hashes("a").size(), 1u);
  EXPECT_EQ(orchestrator::line_hashes("a\n").size(), 1u);
  EXPECT_EQ(orchestrator::line_hashes("a\n\nb").size(), 3u);
  const auto h = orchestrator::line_hashes("x\nx\r\n\n");
  ASSERT_EQ(h.size(), 3u);
  // A carriage return is part of its line; an empty line hashes like "".
  EXPECT_NE(h[0], h[1]);
  EXPECT_EQ(h[2], orchestrator::line_hash(""));
  EXPECT_NE(orchestrator::line_hash("abcdefgh1"), orchestrator::line_hash("abcdefgh2"));
  EXPECT_NE(orchestrator::line_hash(std::string(1, '\0')), orchestrator::line_hash(""));
}

TEST(LineHashes, StoredFormRoundTripsAndRefusesOtherText) {
  const std::vector<std::uint64_t> values = {0, 1, 0xfedcba9876543210ULL};
  const std::string hex = orchestrator::hashes_to_hex(values);
  EXPECT_EQ(hex, "00000000000000000000000000000001fedcba9876543210");
  EXPECT_EQ(orchestrator::hashes_from_hex(hex), values);
  EXPECT_EQ(orchestrator::hashes_from_hex(""), std::vector<std::uint64_t>{});
  EXPECT_FALSE(orchestrator::hashes_from_hex("0123"));
  EXPECT_FALSE(orchestrator::hashes_from_hex("000000000000000G"));
  EXPECT_FALSE(orchestrator::hashes_from_hex("000000000000000A"));
}

TEST(Fingerprint, KeepsContextUpToTheFileEdges) {
  const auto file = hashes({"1", "2", "3", "4", "5", "6", "7", "8"});
  const auto middle = orchestrator::fingerprint_of(file, 4, 5);
  ASSERT_TRUE(middle);
  EXPECT_EQ(middle->before, (std::vector<std::uint64_t>{file[0], file[1], file[2]}));
  EXPECT_EQ(middle->lines, (std::vector<std::uint64_t>{file[3], file[4]}));
  EXPECT_EQ(middle->after, (std::vector<std::uint64_t>{file[5], file[6], file[7]}));
  const auto edges = orchestrator::fingerprint_of(file, 2, 7);
  ASSERT_TRUE(edges);
  EXPECT_EQ(edges->before.size(), 1u);
  EXPECT_EQ(edges->after.size(), 1u);
  for (const auto& [start, end] : std::vector<std::pair<int, int>>{{0, 2}, {3, 2}, {7, 9}}) {
    EXPECT_FALSE(orchestrator::fingerprint_of(file, start, end)) << start << "-" << end;
  }
}

using State = orchestrator::CitationState;

// What the index should make of a cited range in the file as it is now.
struct Case {
  const char* name;
  Lines now;
  State state;
  int now_start;
  int now_end;
};

// Lines `line_start` to `line_end` of `before`, cited, judged in `c.now`.
void expect_judged(const Lines& before, int line_start, int line_end, const Case& c) {
  const auto fingerprint = orchestrator::fingerprint_of(hashes(before), line_start, line_end);
  ASSERT_TRUE(fingerprint) << c.name;
  orchestrator::LineIndex index(hashes(c.now));
  const orchestrator::Judgement judged = index.judge(*fingerprint, line_start);
  EXPECT_EQ(orchestrator::state_name(judged.state), std::string(orchestrator::state_name(c.state)))
      << c.name;
  EXPECT_EQ(judged.line_start, c.now_start) << c.name;
  EXPECT_EQ(judged.line_end, c.now_end) << c.name;
}

TEST(LineIndex, JudgesACitedRangeAgainstTheFileNow) {
  const Lines base = {"// top", "#include <x>", "", "int f() {", "  return g();", "}",
                      "",       "int h;"};
  // `int f` and its body, lines 4 to 6 of base.
  const Case cases[] = {
      {"identical", base, State::intact, 4, 6},
      {"edit below only",
       {"// top", "#include <x>", "", "int f() {", "  return g();", "}", "", "long h;"},
       State::intact,
       4,
       6},
      {"edit above",
       {"// top", "// more", "// and more", "#include <x>", "", "int f() {", "  return g();", "}",
        "", "int h;"},
       State::moved,
       6,
       8},
      {"lines removed above",
       {"int f() {", "  return g();", "}", "", "int h;"},
       State::moved,
       1,
       3},
      {"edit inside",
       {"// top", "#include <x>", "", "int f() {", "  return g() + 1;", "}", "", "int h;"},
       State::changed,
       0,
       0},
      {"line inserted inside",
       {"// top", "#include <x>", "", "int f() {", "  log();", "  return g();", "}"},
       State::changed,
       0,
       0},
      {"moved with new context",
       {"int h;", "", "", "", "", "int f() {", "  return g();", "}"},
       State::moved,
       6,
       8},
      {"emptied", {}, State::changed, 0, 0},
      {"cut short", {"// top", "#include <x>", "", "int f() {"}, State::changed, 0, 0},
  };
  for (const auto& c : cases) expect_judged(base, 4, 6, c);
  expect_judged(base, 7, 8, {"past the end of a shorter file", {"", "int h;"}, State::moved, 1, 2});
}

TEST(LineIndex, ContextDecidesBetweenDuplicateBlocks) {
  const Lines block = {"  if (!p) {", "    return -1;", "  }"};
  const auto with = [&](const Lines& head, const Lines& middle, const Lines& tail) {
    Lines out = head;
    out.insert(out.end(), block.begin(), block.end());
    out.insert(out.end(), middle.begin(), middle.end());
    out.insert(out.end(), block.begin(), block.end());
    out.insert(out.end(), tail.begin(), tail.end());
    return out;
  };
  // The second copy is cited: "b = make();" above it, "use(b);" below.
  const Lines base = with({"a = make();"}, {"use(a);", "b = make();"}, {"use(b);"});
  const auto second = orchestrator::fingerprint_of(hashes(base), 7, 9);
  ASSERT_TRUE(second);

  // Lines inserted at the top move both copies: the cited one is found by its context.
  orchestrator::LineIndex shifted(
      hashes(with({"x", "y", "a = make();"}, {"use(a);", "b = make();"}, {"use(b);"})));
  orchestrator::Judgement judged = shifted.judge(*second, 7);
  EXPECT_EQ(judged.state, orchestrator::CitationState::moved);
  EXPECT_EQ(judged.line_start, 9);

  // The copies swap neighbourhoods: the context wins over the nearer place.
  const Lines swapped = with({"x", "b = make();"}, {"use(b);", "a = make();", "z"}, {"use(a);"});
  orchestrator::LineIndex swapped_index(hashes(swapped));
  judged = swapped_index.judge(*second, 7);
  EXPECT_EQ(judged.state, orchestrator::CitationState::moved);
  EXPECT_EQ(judged.line_start, 3);

  // Equal context on both: the copy nearest the old place.
  const Lines around = {"a", "b", "c", "  if (!p) {", "    return -1;", "  }", "d", "e", "f"};
  Lines twice = around;
  twice.insert(twice.end(), around.begin(), around.end());
  const auto cited = orchestrator::fingerprint_of(hashes(twice), 13, 15);
  ASSERT_TRUE(cited);
  Lines now = twice;
  now.insert(now.begin(), "new");
  orchestrator::LineIndex index(hashes(now));
  judged = index.judge(*cited, 13);
  EXPECT_EQ(judged.state, orchestrator::CitationState::moved);
  EXPECT_EQ(judged.line_start, 14);
  EXPECT_EQ(judged.line_end, 16);
}

TEST(LineIndex, OneIndexServesManyRangesOfAFile) {
  Lines base;
  for (int i = 0; i < 200; ++i) base.push_back("line " + std::to_string(i));
  Lines now = base;
  now.insert(now.begin() + 100, "inserted");
  now[150] = "edited";
  orchestrator::LineIndex index(hashes(now));
  const auto file = hashes(base);
  const orchestrator::Judgement early =
      index.judge(*orchestrator::fingerprint_of(file, 10, 19), 10);
  const orchestrator::Judgement late =
      index.judge(*orchestrator::fingerprint_of(file, 170, 179), 170);
  const orchestrator::Judgement edited =
      index.judge(*orchestrator::fingerprint_of(file, 145, 154), 145);
  EXPECT_EQ(early.state, orchestrator::CitationState::intact);
  EXPECT_EQ(late.state, orchestrator::CitationState::moved);
  EXPECT_EQ(late.line_start, 171);
  EXPECT_EQ(late.line_end, 180);
  EXPECT_EQ(edited.state, orchestrator::CitationState::changed);
  EXPECT_EQ(index.size(), 201u);
}

// Judging a changed file needs its line hashes; the hasher takes them from the
// read that hashed the file's content, for the files asked for only.
TEST(FileHasher, KeepsLineHashesFromTheContentRead) {
  kodrune_test::TempDir tmp;
  const std::string a = "int a;\nint b;\n";
  std::ofstream(tmp.path() / "a.cpp", std::ios::binary) << a;
  std::ofstream(tmp.path() / "b.cpp", std::ios::binary) << "int c;\n";
  std::ofstream(tmp.path() / "c.cpp", std::ios::binary) << "int d;\n";
  orchestrator::FileHasher hasher(tmp.path(), read_whole_file, false);
  hasher.keep_line_hashes({"./a.cpp", "gone.cpp"});
  hasher.hashes({"a.cpp", "b.cpp", "gone.cpp"});
  EXPECT_EQ(hasher.files_read(), 2u);
  auto kept = hasher.take_line_hashes();
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(kept.at("a.cpp"), orchestrator::line_hashes(a));
  EXPECT_TRUE(hasher.take_line_hashes().empty());

  hasher.keep_line_hashes({});
  hasher.hashes({"c.cpp"});
  EXPECT_TRUE(hasher.take_line_hashes().empty());
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

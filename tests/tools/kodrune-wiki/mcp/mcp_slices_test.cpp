// The pieces that keep MCP answers short: summaries, slices of long texts
// and the cursors that resume a list.
#include "kodrune-wiki/mcp/mcp_slices.hpp"

#include <gtest/gtest.h>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace kodrune_cli::mcp {
namespace {

namespace wiki = zenthar_kodrune::workers::wiki;

TEST(McpSlices, FilesSummaryNamesTheLargestFoldersAndCountsTheRest) {
  std::vector<std::string> files;
  for (int i = 0; i < 12; ++i) files.push_back("lib/compress/f" + std::to_string(i) + ".c");
  for (int i = 0; i < 1000; ++i) files.push_back("lib/z" + std::to_string(i) + ".c");
  files.push_back("top.c");
  EXPECT_EQ(files_summary(files, 2), "1,000 files in lib, 12 files in lib/compress; 1 more");
  EXPECT_EQ(files_summary(files), "1,000 files in lib, 12 files in lib/compress, 1 file in .");
  EXPECT_EQ(count_text(96950), "96,950");
  EXPECT_EQ(count_text(999), "999");
  EXPECT_EQ(count_text(1000000), "1,000,000");
}

TEST(McpSlices, BoundedSummaryCutsAtALineAndSaysHowManyWereLeftOut) {
  std::string text;
  for (int i = 0; i < 1000; ++i) text += "line " + std::to_string(i) + "\n";
  const std::string cut = bounded_summary(text, 200);
  EXPECT_LE(cut.size(), 200u);
  EXPECT_EQ(cut.substr(0, 14), "line 0\nline 1\n");
  EXPECT_NE(cut.find("more lines)"), std::string::npos) << cut;
  // One line longer than the bound, of two-byte characters: cut between them.
  std::string wide;
  for (int i = 0; i < 150; ++i) wide += "\xc3\xa9";
  const std::string wide_cut = bounded_summary("x" + wide, 100);
  EXPECT_LE(wide_cut.size(), 100u);
  EXPECT_EQ(wide_cut.substr(0, 3), "x\xc3\xa9");
  EXPECT_EQ(wide_cut.find("\xc3\n"), std::string::npos) << wide_cut;
  EXPECT_EQ(bounded_summary("short", 200), "short");
}

TEST(McpSlices, TextSlicesJoinUpToTheTextAndStayWithinTheirJsonBudget) {
  // Characters of 1 to 4 bytes, quotes and control characters that escape
  // to 2 and 6 bytes, and line ends to cut at.
  std::string text;
  for (int i = 0; i < 400; ++i) text += "caf\xc3\xa9 \"q\" \x01 \xf0\x9f\x98\x80\n";
  std::string joined;
  std::size_t begin = 0;
  int slices = 0;
  while (begin < text.size()) {
    const TextSlice slice = slice_text(text, begin, 1000);
    ASSERT_EQ(slice.begin, begin);
    ASSERT_GT(slice.end, slice.begin);
    const mcp::Json piece = text.substr(slice.begin, slice.end - slice.begin);
    EXPECT_LE(piece.dump().size(), 1000u);
    // A slice ends at a character boundary: its own dump would fail otherwise.
    EXPECT_NO_THROW((void)piece.dump());
    joined += piece.get<std::string>();
    begin = slice.end;
    ++slices;
  }
  EXPECT_EQ(joined, text);
  EXPECT_GT(slices, 10);
  // An offset inside a character moves to the next one.
  EXPECT_EQ(slice_text("\xc3\xa9x", 1, 100).begin, 2u);
}

TEST(McpSlices, CursorsResumeAfterTheLastEntryGivenEvenWhenTheListChanged) {
  const std::vector<std::string> ids = {"a", "b", "c", "d", "e"};
  const Cursor cursor = read_cursor(write_cursor({2, "b"}));
  EXPECT_EQ(cursor.position, 2u);
  EXPECT_EQ(cursor.last_id, "b");
  EXPECT_EQ(resume_at(cursor, ids), 2u);
  // "a" was saved meanwhile and left the list: resume after "b" still.
  EXPECT_EQ(resume_at(cursor, {"b", "c", "d", "e"}), 1u);
  // "b" left too: resume at the same position.
  EXPECT_EQ(resume_at(cursor, {"c", "d", "e"}), 2u);
  EXPECT_EQ(read_cursor(write_cursor({7, "odd \xff id"})).last_id, "odd \xff id");
  for (const char* bad : {"", "c", "c1.6", "x1.62", "c1.zz", "c.62", "c12345678901234.62"}) {
    EXPECT_THROW(read_cursor(bad), wiki::ValueError) << bad;
  }
}

TEST(McpSlices, CutListKeepsTheFirstEntriesAndCountsThem) {
  mcp::Json object = {{"files", {"a", "b", "c"}}, {"other", 1}};
  cut_list(object, "files", "files_total", 2);
  EXPECT_EQ(object, (mcp::Json{{"files", {"a", "b"}}, {"other", 1}, {"files_total", 3}}));
  cut_list(object, "files", "files_total", 2);
  cut_list(object, "missing", "missing_total", 2);
  EXPECT_EQ(object.size(), 3u);
}

}  // namespace
}  // namespace kodrune_cli::mcp

// Splitting a body into "##" sections, mapping each section to the files and
// symbols its stored citations cite, the citations written in prose as
// Markdown links with a line anchor, the sections a changed file stales, and
// a written page's changed files and stale sections on a host that records
// what it is asked (its section cache is golden: sections_cache).
#include <gtest/gtest.h>

#include "harness/recording_host.hpp"
#include "workers/wiki/sections.hpp"
#include "workers/wiki/verify.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using Sections = std::vector<std::pair<std::string, std::string>>;

constexpr const char* kEmptyHash =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

// The golden cases (sections_split) hold an empty body, "##" closing a
// heading, a tab after "##", "### ", no blank after "##", an indented "##",
// "C#" and a heading ending in "\r".
TEST(Sections, SplitAtHeadingLinesOutsideFences) {
  struct Case {
    std::string body;
    Sections expected;
  };
  std::vector<Case> cases = {
      // A body starting with a heading keeps an empty first section.
      {"## A\nx\n## B\n", {{"", ""}, {"A", "## A\nx"}, {"B", "## B\n"}}},
      // Lines end at line feeds only.
      {"a\r## B\r\n## C\r\n", {{"", "a\r## B\r"}, {"C\r", "## C\r\n"}}},
      // Fences of either marker hide headings; an unclosed one hides the rest.
      {"x\n```py\n## In\n~~~ end\n## Out\n~~~\n## In2\n```",
       {{"", "x\n```py\n## In\n~~~ end"}, {"Out", "## Out\n~~~\n## In2\n```"}}},
      {"## A\n```\n## B\n## C", {{"", ""}, {"A", "## A\n```\n## B\n## C"}}},
      // A marker after other text or invalid bytes opens no fence.
      {"a ```\n## H", {{"", "a ```"}, {"H", "## H"}}},
      {"\xff```\n## H", {{"", "\xff```"}, {"H", "## H"}}},
  };
  // A marker after any whitespace opens a fence.
  for (const std::string indent : {"    ", "\t", "\u00a0", "\u3000 "}) {
    const std::string fence = indent + "```";
    cases.push_back({fence + "\n## In\n" + fence + "\n## Out",
                     {{"", fence + "\n## In\n" + fence}, {"Out", "## Out"}}});
  }
  // Which lines are headings, and their text.
  const std::pair<std::string, std::optional<std::string>> headings[] = {
      {"## Setup", "Setup"},
      {"## ##", "#"},
      {"## Café \t#", "Café"},
      {"## a\u00a0", "a\u00a0"},  // only spaces, tabs and "#" are trimmed
      {"##  \t", std::nullopt},
      {"## \u00a0Setup", std::nullopt},  // a no-break space is no heading text
      {"## Set\xffup", std::nullopt},    // invalid UTF-8 is plain text
  };
  for (const auto& [line, heading] : headings) {
    cases.push_back({"intro\n" + line, heading ? Sections{{"", "intro"}, {*heading, line}}
                                               : Sections{{"", "intro\n" + line}}});
  }
  for (const auto& [body, expected] : cases) EXPECT_EQ(_sections(body), expected) << body;
}

Json citation(std::string path, Json start, Json end, Json symbol = nullptr) {
  Json c = {
      {"path", std::move(path)}, {"line_start", std::move(start)}, {"line_end", std::move(end)}};
  if (!symbol.is_null()) c["symbol"] = std::move(symbol);
  return c;
}

// An empty body, text before the first heading that cites, a bad stored line
// number and hashes that are no mapping are golden cases (sections_map).
TEST(SectionMap, TextBeforeTheFirstHeadingIsListedOnlyWhenItCites) {
  EXPECT_EQ(
      section_map("intro\n## A\ntext", Json::array(), Json::object()).dump(),
      R"([{"heading":"A","files":[],"symbols":[],"hash":")" + std::string(kEmptyHash) + R"("}])");
}

TEST(SectionMap, RepeatedUnknownAndUnhashedCitations) {
  const Json citations = {
      citation("b.py", "3", 3, "z.g"),
      citation("a.py", 5, 5, "old"),
      citation("a.py", 5, 5, "m.f"),  // same identity: replaces the one before
      citation("a.py", 8, 9, ""),
  };
  const std::string body =
      "## S\n[g](b.py#L3) [f](a.py#L5) [g again](b.py#L3) [h](a.py#L8-L9) [x](c.py#L1)";
  const Json result = section_map(body, citations, {{"a.py", "h1"}});
  EXPECT_EQ(result.dump(),
            R"([{"heading":"S","files":["a.py","b.py"],"symbols":["m.f","z.g"],"hash":")"
            R"(ea970104fccb60afce7319bf3a35a1e6d9e5605955323744db0c465e113ae6bc"}])");
}

TEST(SectionMap, StoredValuesThatAreNotTextReadAsTheirJson) {
  Json numbered_path = citation("x", 1, 1, "n.f");
  numbered_path["path"] = 7;
  Json list_symbol = citation("a.py", 2, 2, "");
  list_symbol["symbol"] = Json::array({"s"});
  Json false_symbol = citation("a.py", 3, 3, "");
  false_symbol["symbol"] = false;
  // Never cited: a symbol that cannot be written out as JSON is never read.
  Json unwritable_symbol = citation("a.py", 4, 4, "");
  unwritable_symbol["symbol"] = Json::array({"\xff"});
  const Json citations = {numbered_path, list_symbol, false_symbol, unwritable_symbol};
  const Json result =
      section_map("## S\n[n](7#L1) [l](a.py#L2) [f](a.py#L3)", citations, Json::object());
  ASSERT_EQ(result.size(), 1u);
  EXPECT_EQ(result[0]["files"], Json::parse(R"(["7", "a.py"])"));
  EXPECT_EQ(result[0]["symbols"], Json::parse(R"(["[\"s\"]", "n.f"])"));
}

TEST(SectionMap, CitationsThatAreNoListAreATypeError) {
  EXPECT_THROW(section_map("## A", Json("a.py#L1"), Json::object()), TypeError);
}

TEST(ChangedFiles, ClassesOnlyComparedPathsSorted) {
  const Json stored = {
      {"z.py", "1"}, {"gone.py", "2"}, {"same.py", "3"}, {"b.py", "4"}, {"ignored.py", "5"}};
  const Json current = {
      {"same.py", "3"}, {"z.py", "9"}, {"new.py", "6"}, {"b.py", "8"}, {"a.py", "7"}};
  const Json changes = changed_files(
      stored, current, {"z.py", "gone.py", "same.py", "new.py", "a.py", "b.py", "absent.py"});
  EXPECT_EQ(changes.dump(),
            R"({"added":["a.py","new.py"],"removed":["gone.py"],"modified":["b.py","z.py"]})");
  EXPECT_EQ(changed_files(nullptr, Json::object(), {"a.py"}).dump(),
            R"({"added":[],"removed":[],"modified":[]})");
  EXPECT_THROW(changed_files(Json::array({"a.py"}), Json::object(), {}), TypeError);
}

TEST(StaleSections, HeadingsOfSectionsCitingATouchedFile) {
  const Json sections = Json::parse(R"([
    {"heading": "", "files": ["a.py"]},
    {"heading": "Setup", "files": ["b.py", "c.py"]},
    {"heading": "Usage", "files": []},
    {"heading": "Api", "files": ["c.py"]}])");
  EXPECT_EQ(stale_sections(sections, {"c.py", "a.py"}),
            (std::vector<std::string>{"", "Setup", "Api"}));
  EXPECT_EQ(stale_sections(Json::array(), {"c.py"}), std::vector<std::string>{});
  EXPECT_THROW(stale_sections(Json("sections"), {}), TypeError);
  EXPECT_THROW(stale_sections(Json::array({"Setup"}), {}), TypeError);
  EXPECT_THROW(stale_sections(Json::parse(R"([{"heading": "S", "files": "a.py"}])"), {}),
               TypeError);
}

TEST(ProseCitations, LinksWithLineAnchorsInTextOrderRepeatsKept) {
  const Json found = prose_citations(
      "See [`run`](src/a.cpp#L10-L20), then [b](lib/b.py#L7).\n"
      "Again [the\nrun](src/a.cpp#L10-L20) and [`v[0]`](c.h#L3).");
  EXPECT_EQ(found.dump(), R"([{"path":"src/a.cpp","line_start":10,"line_end":20},)"
                          R"({"path":"lib/b.py","line_start":7,"line_end":7},)"
                          R"({"path":"src/a.cpp","line_start":10,"line_end":20},)"
                          R"({"path":"c.h","line_start":3,"line_end":3}])");
}

TEST(ProseCitations, TargetsThatAreNoCitation) {
  const std::vector<std::string> texts = {
      "[a](src/a.cpp)",                   // no anchor
      "[a](src/a.cpp#L)",                 // no line number
      "[a](src/a.cpp#L1-)",               // half a range
      "[a](src/a b.cpp#L1)",              // whitespace in the path
      "[a](src/a\u00a0b.cpp#L1)",         // Unicode whitespace in the path
      "[a](src/a.cpp#x#L1)",              // "#" in the path
      "[a](#L1)",                         // no path
      "[a](a.cpp#L\u0661)",               // not an ASCII digit
      "[a](a.cpp#L1234567890123456789)",  // longer than a 64-bit line number
      "[a] (a.cpp#L1)",                   // not a link
      "[[[a]]](a.cpp#L1)",                // nested too deep
      "[a](a\xff.cpp#L1)",                // invalid UTF-8
  };
  for (const auto& text : texts) EXPECT_EQ(prose_citations(text), Json::array()) << text;
}

TEST(ProseCitations, UnclosedBracketsAndInvalidBytesDoNotHideOrRepeatLinks) {
  const std::vector<std::string> texts = {"[[[ [x [a](a.cpp#L2)", "[x\xff [a](a.cpp#L2)",
                                          "\xff[a](a.cpp#L2)\xff"};
  for (const auto& text : texts) {
    EXPECT_EQ(prose_citations(text).dump(), R"([{"path":"a.cpp","line_start":2,"line_end":2}])")
        << text;
  }
}

using kodrune_cli::RecordingHost;

RecordingHost host_with_files(const char* files) {
  return RecordingHost(Json{{"files", Json::parse(files)}});
}

TEST(PageChanges, PagesNeverWrittenAreNotCompared) {
  // No row and a row holding the stale marker are golden cases (sections_cache).
  const PagePlan plan{.page_id = "module-a", .source_files = {"src/a.py"}};
  const Json rows[] = {Json::object(), Json::parse(R"({"page_id": "module-a", "content_hash": "",
      "source_hashes": {"src/a.py": "1"}})")};
  RecordingHost host = host_with_files(R"({"src/a.py": "2"})");
  for (const Json& row : rows) EXPECT_EQ(host._page_changes(plan, &row), Json::object()) << row;
  EXPECT_EQ(host.calls(), Json::array());
}

TEST(PageChanges, WrittenPageWithoutBuildCacheComparesOwnedAndRecordedFiles) {
  const PagePlan plan{.page_id = "module-a", .source_files = {"./src//b.py", "src/a.py"}};
  const Json row = Json::parse(R"({"page_id": "module-a", "content_hash": "c",
      "source_hashes": {"__steering__": "s", "src/a.py": "1", "old.py": "o"}})");
  RecordingHost host = host_with_files(R"({"src/a.py": "2", "src/b.py": "3", "old.py": "o"})");
  EXPECT_EQ(host._page_changes(plan, &row).dump(),
            R"({"changed_files":{"added":["src/b.py"],"removed":[],"modified":["src/a.py"]},)"
            R"("stale_sections":[]})");
  EXPECT_EQ(host.calls().dump(),
            R"([{"call":"_source_hashes","paths":["old.py","src/a.py","src/b.py"]}])");
}

TEST(PageChanges, BuildCacheHashWinsAndStaleMarkerIsNeverCompared) {
  const PagePlan plan{.page_id = "parent", .source_files = {}};
  const Json row = Json::parse(R"({"page_id": "parent", "content_hash": "c",
      "source_hashes": {"__stale__": "pending", "src/a.py": "old"},
      "build_cache": {"prompt": "kept by the host",
        "sections": [{"heading": "Use", "files": ["src/a.py"]},
                     {"heading": "Gone", "files": ["lib/old.py", "src/c.py"]},
                     {"heading": "Same", "files": ["src/c.py"]}],
        "file_hashes": {"src/a.py": "new", "lib/old.py": "o", "src/c.py": "c"}}})");
  RecordingHost host = host_with_files(R"({"src/a.py": "new", "src/c.py": "c"})");
  EXPECT_EQ(host._page_changes(plan, &row).dump(),
            R"({"changed_files":{"added":[],"removed":["lib/old.py"],"modified":[]},)"
            R"("stale_sections":["Gone"]})");
  EXPECT_EQ(host.calls().dump(),
            R"([{"call":"_source_hashes","paths":["lib/old.py","src/a.py","src/c.py"]}])");
}

TEST(PageChanges, NonMappingHashesAreTypeErrorsBeforeHashing) {
  const PagePlan plan{.page_id = "p"};
  const std::vector<std::string> rows = {
      R"({"page_id": "p", "content_hash": "c", "build_cache": "{\"file_hashes\": {}}"})",
      R"({"page_id": "p", "content_hash": "c", "source_hashes": ["src/a.py"]})",
      R"({"page_id": "p", "content_hash": "c", "build_cache": {"file_hashes": ["src/a.py"]}})",
      R"({"page_id": "p", "content_hash": "c", "build_cache": {"sections": "Setup"}})",
  };
  for (const auto& text : rows) {
    RecordingHost host = host_with_files("{}");
    const Json row = Json::parse(text);
    try {
      host._page_changes(plan, &row);
      ADD_FAILURE() << "expected a TypeError for " << text;
    } catch (const TypeError& e) {
      EXPECT_NE(std::string(e.what()).find("\"p\""), std::string::npos) << e.what();
    }
    EXPECT_EQ(host.calls(), Json::array()) << text;
  }
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

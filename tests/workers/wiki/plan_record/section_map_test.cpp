// Splitting a body into "##" sections, and mapping each section to the files
// and symbols its stored citations cite.
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

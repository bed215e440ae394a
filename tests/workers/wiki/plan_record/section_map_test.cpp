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

TEST(Sections, SplitAtHeadingLinesOutsideFences) {
  struct Case {
    std::string body;
    Sections expected;
  };
  std::vector<Case> cases = {
      {"", {{"", ""}}},
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
      {"## Setup ##", "Setup"},
      {"##\tSetup", "Setup"},
      {"## C#", "C"},
      {"## ##", "#"},
      {"## Setup\r", "Setup\r"},
      {"## Café \t#", "Café"},
      {"## a\u00a0", "a\u00a0"},  // only spaces, tabs and "#" are trimmed
      {"### Setup", std::nullopt},
      {"##Setup", std::nullopt},
      {" ## Setup", std::nullopt},
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

TEST(SectionMap, TextBeforeTheFirstHeadingIsListedOnlyWhenItCites) {
  EXPECT_EQ(section_map("", Json::array(), Json::object()), Json::array());
  EXPECT_EQ(
      section_map("intro\n## A\ntext", Json::array(), Json::object()).dump(),
      R"([{"heading":"A","files":[],"symbols":[],"hash":")" + std::string(kEmptyHash) + R"("}])");
  const Json citations = {citation("a.py", 1, 2, "m.f")};
  const Json result =
      section_map("see [f](a.py#L1-L2)\n## A\nagain [f](a.py#L1-L2)", citations, {{"a.py", "h1"}});
  const std::string hash = "06db90b112eaf9777813d8c85116af011f81828e9d3ac5c248c0645d46d1c1c5";
  EXPECT_EQ(result.dump(), R"([{"heading":"","files":["a.py"],"symbols":["m.f"],"hash":")" + hash +
                               R"("},{"heading":"A","files":["a.py"],"symbols":["m.f"],"hash":")" +
                               hash + R"("}])");
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

TEST(SectionMap, BadInputFailsNamingWhatWasWrong) {
  const Json bad_text = {citation("a.py", "12a", 12)};
  try {
    section_map("", bad_text, Json::object());
    FAIL() << "expected a ValueError";
  } catch (const ValueError& e) {
    EXPECT_NE(std::string(e.what()).find("a.py"), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("12a"), std::string::npos) << e.what();
  }
  EXPECT_THROW(section_map("", Json{citation("a.py", 1, nullptr)}, Json::object()), TypeError);
  EXPECT_THROW(section_map("## A", Json::array(), Json::array({"a.py"})), TypeError);
  EXPECT_THROW(section_map("## A", Json("a.py#L1"), Json::object()), TypeError);
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

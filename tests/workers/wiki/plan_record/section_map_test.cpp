// Sections and citations where the golden cases cannot reach: bodies that
// are not UTF-8, and the citations written in prose as Markdown links with a
// line anchor. (A page's changed files and stale sections are golden:
// sections_cache.)
#include <gtest/gtest.h>

#include "workers/wiki/plan_record/prose_citations.hpp"
#include "workers/wiki/plan_record/stale_sections.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using Sections = std::vector<std::pair<std::string, std::string>>;

// How bodies split, which citations a section lists and how stored values
// read are golden cases (sections_split, sections_map); JSON cannot carry
// the bytes that are not UTF-8 these hold.
TEST(Sections, BytesThatAreNotUtf8OpenNoFenceAndAreNeverRead) {
  EXPECT_EQ(_sections("\xff```\n## H"), (Sections{{"", "\xff```"}, {"H", "## H"}}));
  EXPECT_EQ(_sections("intro\n## Set\xffup"), (Sections{{"", "intro\n## Set\xffup"}}));
  // A symbol that cannot be written out as JSON is never read when never cited.
  const Json never_cited = {
      {"path", "a.py"}, {"line_start", 4}, {"line_end", 4}, {"symbol", Json::array({"\xff"})}};
  EXPECT_EQ(section_map("## S\n[f](a.py#L3)", Json::array({never_cited}), Json::object()).size(),
            1u);
}

TEST(ProseCitations, LinksWithALineAnchorInTextOrderRepeatsKept) {
  const std::string a2 = R"([{"path":"a.cpp","line_start":2,"line_end":2}])";
  const std::pair<std::string, std::string> cases[] = {
      {"See [`run`](src/a.cpp#L10-L20), then [b](lib/b.py#L7).\n"
       "Again [the\nrun](src/a.cpp#L10-L20) and [`v[0]`](c.h#L3).",
       R"([{"path":"src/a.cpp","line_start":10,"line_end":20},)"
       R"({"path":"lib/b.py","line_start":7,"line_end":7},)"
       R"({"path":"src/a.cpp","line_start":10,"line_end":20},)"
       R"({"path":"c.h","line_start":3,"line_end":3}])"},
      // Unclosed brackets and invalid bytes neither hide nor repeat a link.
      {"[[[ [x [a](a.cpp#L2)", a2},
      {"[x\xff [a](a.cpp#L2)", a2},
      {"\xff[a](a.cpp#L2)\xff", a2},
      // Targets that are no citation.
      {"[a](src/a.cpp)", "[]"},                   // no anchor
      {"[a](src/a.cpp#L)", "[]"},                 // no line number
      {"[a](src/a.cpp#L1-)", "[]"},               // half a range
      {"[a](src/a b.cpp#L1)", "[]"},              // whitespace in the path
      {"[a](src/a\u00a0b.cpp#L1)", "[]"},         // Unicode whitespace in the path
      {"[a](src/a.cpp#x#L1)", "[]"},              // "#" in the path
      {"[a](#L1)", "[]"},                         // no path
      {"[a](a.cpp#L\u0661)", "[]"},               // not an ASCII digit
      {"[a](a.cpp#L1234567890123456789)", "[]"},  // longer than a 64-bit line number
      {"[a] (a.cpp#L1)", "[]"},                   // not a link
      {"[[[a]]](a.cpp#L1)", "[]"},                // nested too deep
      {"[a](a\xff.cpp#L1)", "[]"},                // invalid UTF-8
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(plan_record::prose_citations(text).dump(), expected) << text;
  }
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

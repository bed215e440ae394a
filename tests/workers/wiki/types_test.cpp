// Page types: importance scores, stored files, citation identity, family links.
// (A plan's JSON form shows in every golden case.)
#include "zenthar_kodrune/workers/wiki/types.hpp"

#include <gtest/gtest.h>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

TEST(PagePlan, ImportanceScoreTreatsUnknownWordsAsMedium) {
  const std::vector<std::pair<std::string, int>> cases = {
      {"critical", 4}, {"high", 3}, {"medium", 2}, {"low", 1}, {"urgent", 2}, {"", 2}};
  for (const auto& [word, score] : cases) {
    EXPECT_EQ(make_plan({.importance = word})->importance_score(), score) << word;
  }
  EXPECT_EQ(make_plan({.source_files = {"b.py", "a.py", "b.py"}})->stored_source_files(),
            (std::vector<std::string>{"a.py", "b.py"}));
}

TEST(ParseJson, RefusesWhatCannotBeHeldSafelyWithAValueError) {
  const std::string deep_ok = std::string(MAX_JSON_DEPTH, '[') + std::string(MAX_JSON_DEPTH, ']');
  EXPECT_EQ(parse_json(deep_ok).size(), 1u);
  const std::pair<std::string, std::string> cases[] = {
      {"1e400", "number overflow"},
      {"[-1e400]", "number overflow"},
      {std::string(100000, '['), "deeper than 512 levels"},
      {"[" + std::string(MAX_JSON_DEPTH, '[') + std::string(MAX_JSON_DEPTH + 1, ']'),
       "deeper than 512 levels"},
      {"{\"a\": ", "parse error"},
      {"", "parse error"},
  };
  for (const auto& [text, message] : cases) {
    try {
      parse_json(text);
      ADD_FAILURE() << text.substr(0, 40) << " was accepted";
    } catch (const ValueError& e) {
      EXPECT_NE(std::string(e.what()).find(message), std::string::npos)
          << text.substr(0, 40) << ": " << e.what();
    }
  }
}

TEST(CitationKey, ParsesDecimalTextAndDefaultsMissingToZero) {
  EXPECT_EQ(citation_key(Json{{"path", "a.py"}, {"line_start", "12"}, {"line_end", 14}}),
            (CitationKey{"a.py", 12, 14}));
  EXPECT_EQ(citation_key(Json{{"line_start", "-3"}, {"line_end", "+4"}}), (CitationKey{"", -3, 4}));
  EXPECT_EQ(citation_key(Json::object()), (CitationKey{"", 0, 0}));
}

TEST(CitationKey, RejectsTextThatIsNotAWholeDecimalNumber) {
  for (const char* bad : {"12a", " 12", "", "+", "1.5"}) {
    EXPECT_THROW(citation_key(Json{{"path", "a.py"}, {"line_start", bad}}), ValueError) << bad;
  }
  EXPECT_THROW(citation_key(Json{{"path", "a.py"}, {"line_end", nullptr}}), TypeError);
}

TEST(SectionOf, FallsBackByLevel) {
  EXPECT_EQ(section_of(PagePlan{}), "Modules");
  EXPECT_EQ(section_of(PagePlan{.level = "overview"}), "Overview");
  EXPECT_EQ(section_of(PagePlan{.parent_section = "Parser"}), "Parser");
}

TEST(LinkFamilies, SetsTheFirstChildOfEachIdAndLeavesRelatedPagesAlone) {
  auto parent = make_plan({.page_id = "p", .title = "Parser", .children = {"c", "missing"}});
  auto child = make_plan({.page_id = "c", .related_pages = {"p"}});
  auto twin = make_plan({.page_id = "c"});
  PlanList plans = link_families({parent, child, twin});
  ASSERT_EQ(plans.size(), 3u);
  EXPECT_EQ(plans[1].get(), child.get());
  EXPECT_EQ(child->parent_section, "Parser");
  EXPECT_EQ(twin->parent_section, "");
  EXPECT_EQ(child->related_pages, (std::vector<std::string>{"p"}));
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

// Page types: citation identity, the section a page falls in, and the
// page-id rules (one answer for the catch-all pattern wherever it is asked,
// one catch-all page whoever builds it). (Importance, stored files, family
// links, topics and kept titles show in the golden reconcile and store
// cases.) The JSON value type: objects keep insertion order and find keys
// through their index however they were built or cut down; parse_json reads
// every text as nlohmann's parser did.
#include "zenthar_kodrune/workers/wiki/types.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "workers/wiki/model/page_ids.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/json.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/planner.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

// Which texts read as line numbers is golden (sections_map); here are the
// values of those no link can cite.
TEST(CitationKey, SignedTextAndMissingNumbers) {
  EXPECT_EQ(citation_key(Json{{"line_start", "-3"}, {"line_end", "+4"}}), (CitationKey{"", -3, 4}));
  EXPECT_EQ(citation_key(Json::object()), (CitationKey{"", 0, 0}));
}

TEST(SectionOf, FallsBackByLevel) {
  EXPECT_EQ(section_of(PagePlan{}), "Modules");
  EXPECT_EQ(section_of(PagePlan{.level = "overview"}), "Overview");
  EXPECT_EQ(section_of(PagePlan{.parent_section = "Parser"}), "Parser");
}

TEST(PageIds, CatchAllPatternMatchesTheWholeIdOnly) {
  const struct {
    const char* id;
    bool catch_all;
  } cases[] = {
      {"module-additional", true},           {"module-additional-2", true},
      {"module-additional-10", true},        {"module-additional-", false},
      {"module-additional-x", false},        {"module-additional-2-b", false},
      {"xmodule-additional", false},         {"module-additional2", false},
      {"module-additional\n", false},        {"module-additional-2\n", false},
      {"module-additional-\xd9\xa3", false},  // an Arabic-Indic digit is no ASCII digit
      {"custom-module-additional", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(is_catch_all_id(c.id), c.catch_all) << c.id;
    EXPECT_EQ(_CATCH_ALL_RE.full_match(c.id), c.catch_all) << c.id;
  }
}

TEST(PageIds, PlannerAndPinningBuildOneCatchAllPage) {
  // Thirty loose files in thirty folders: too small for pages of their own,
  // so the planner hands them to the catch-all page.
  std::vector<std::string> sorted;
  for (int i = 0; i < 30; ++i) sorted.push_back("d" + std::to_string(i) + "/f.c");
  std::sort(sorted.begin(), sorted.end());
  PlannerSettings settings;
  settings.page_budget = 2;
  const PlanList planned = plan_pages(sorted, settings);
  const auto found = std::find_if(planned.begin(), planned.end(),
                                  [](const PlanPtr& plan) { return plan->catch_all; });
  ASSERT_NE(found, planned.end());
  const PlanPtr built = model::catch_all_page((*found)->source_files);
  EXPECT_EQ(plan_to_json(**found), plan_to_json(*built));
  EXPECT_EQ(built->description, "Remaining modules and files (" +
                                    std::to_string(built->source_files.size()) + " files).");
}

std::string key(int i) {
  // Long keys as well as short ones: a short string's characters move with it.
  return i % 3 == 0 ? "k" + std::to_string(i)
                    : "a-long-key-past-the-small-string-buffer-" + std::to_string(i);
}

// Every key of `expected`, in order, is what `object` holds and finds.
void expect_members(const Json& object, const std::vector<int>& expected) {
  ASSERT_EQ(object.size(), expected.size());
  std::size_t at = 0;
  for (auto it = object.begin(); it != object.end(); ++it, ++at) {
    EXPECT_EQ(it.key(), key(expected[at]));
  }
  for (int i : expected) {
    ASSERT_TRUE(object.contains(key(i))) << key(i);
    EXPECT_EQ(object.at(key(i)), i) << key(i);
    EXPECT_EQ(object.find(std::string_view(key(i))).value(), i);
  }
}

TEST(IndexedOrderedMap, FindsEveryKeyInInsertionOrderAcrossTheIndexThreshold) {
  for (int size : {0, 1, 16, 17, 18, 100, 5000}) {
    Json object = Json::object();
    std::vector<int> expected;
    for (int i = size - 1; i >= 0; --i) {
      object[key(i)] = i;
      expected.push_back(i);
    }
    expect_members(object, expected);
    EXPECT_FALSE(object.contains("absent"));
    EXPECT_EQ(object.count(key(size)), 0u);
    // Assigning an existing key keeps its place.
    if (size > 0) {
      object[key(0)] = 0;
      expect_members(object, expected);
    }
    const Json copy = object;
    EXPECT_EQ(copy, object);
    expect_members(copy, expected);
  }
}

TEST(IndexedOrderedMap, EraseKeepsTheIndexRight) {
  Json object = Json::object();
  std::vector<int> expected;
  for (int i = 0; i < 60; ++i) {
    object[key(i)] = i;
    expected.push_back(i);
  }
  // By key, by iterator, by range; down through the threshold.
  EXPECT_EQ(object.erase(key(5)), 1u);
  EXPECT_EQ(object.erase(key(5)), 0u);
  expected.erase(expected.begin() + 5);
  object.erase(object.find(key(0)));
  expected.erase(expected.begin());
  expect_members(object, expected);
  auto& members = object.get_ref<Json::object_t&>();
  members.erase(members.begin() + 10, members.begin() + 40);
  expected.erase(expected.begin() + 10, expected.begin() + 40);
  expect_members(object, expected);
  while (expected.size() > 3) {
    object.erase(key(expected[expected.size() / 2]));
    expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(expected.size() / 2));
    expect_members(object, expected);
  }
  // New keys after erasing land at the end and are found.
  for (int i = 100; i < 130; ++i) {
    object[key(i)] = i;
    expected.push_back(i);
  }
  expect_members(object, expected);
}

TEST(ParseJson, ReadsValuesAsNlohmannsParserDoes) {
  const char* texts[] = {
      R"({"b": 1, "a": [true, false, null], "c": {"x": "y"}})",
      R"({"k": 1, "k": 2, "j": 3})",  // a repeated key: first place, last value
      R"([0, -0, 1, -1, 9223372036854775807, -9223372036854775808, 18446744073709551615])",
      R"([18446744073709551616, -9223372036854775809, 1.0, 1.5e3, -2.5E-3, 0.1])",
      R"(["caf\u00e9", "\ud83d\ude00", "tab\tnl\n", "", "\u0000"])",
      "  {\"padded\": [ ] }\n",
  };
  for (const char* text : texts) {
    const Json ours = parse_json(text);
    const Json theirs = Json::parse(text);
    EXPECT_EQ(ours.dump(), theirs.dump()) << text;
    EXPECT_EQ(ours, theirs) << text;
  }
  // Non-negative integers are unsigned, negative ones signed.
  const Json numbers = parse_json("[5, -5]");
  EXPECT_TRUE(numbers[0].is_number_unsigned());
  EXPECT_TRUE(numbers[1].is_number_integer() && !numbers[1].is_number_unsigned());
  // Many members: the object is found through its index once parsed.
  std::string wide = "{";
  for (int i = 0; i < 1000; ++i) wide += (i ? ", \"" : "\"") + key(i) + "\": " + std::to_string(i);
  wide += "}";
  std::vector<int> expected(1000);
  for (int i = 0; i < 1000; ++i) expected[static_cast<std::size_t>(i)] = i;
  expect_members(parse_json(wide), expected);
}

TEST(ParseJson, BadTextOrWhatCannotBeHeldSafelyIsAValueErrorSayingWhatWasWrong) {
  const std::string deep_ok = std::string(MAX_JSON_DEPTH, '[') + std::string(MAX_JSON_DEPTH, ']');
  EXPECT_EQ(parse_json(deep_ok).size(), 1u);
  const std::pair<std::string, std::string> cases[] = {
      {"{\"a\": 1,}", "parse error"},
      {"[1] [2]", "parse error"},
      {"\"\xff\"", "parse error"},
      {"\"\\ud800\"", "parse error"},
      {"{\"a\": ", "parse error"},
      {"", "parse error"},
      {"[1e999]", "number overflow"},
      {"[-1e400]", "number overflow"},
      {std::string(100000, '['), "deeper than 512 levels"},
      {"[" + std::string(MAX_JSON_DEPTH, '[') + std::string(MAX_JSON_DEPTH + 1, ']'),
       "deeper than 512 levels"},
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

// The rpc answer writes plans as text without building them; it must give
// the very bytes the library's dump gives, whatever the texts hold.
TEST(PlansJson, TextWrittenDirectlyIsTheDumpOfTheValues) {
  PagePlan odd;
  odd.page_id = "module-a\"b\\c";
  odd.title = "tab\there, line\nfeed, \x01 and \x7f";
  odd.description = "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\x9a";
  odd.topic = "bad \xff\xfe utf-8 \xc3";
  odd.source_files = {"src/a.py", "src/\xc3\xa9.py", ""};
  odd.children = {"module-x-part-start"};
  odd.catch_all = true;
  PagePlan plain;
  plain.page_id = "module-src";
  plain.source_files = {"src/a.py", "src/b.py"};
  plain.related_pages = {"module-lib"};
  const PlanList plans = {make_plan(PagePlan{}), make_plan(std::move(odd))};
  const PlanList plain_plans = {make_plan(PagePlan{}), make_plan(std::move(plain))};
  const std::pair<PlanList, bool> lists[] = {{{}, true}, {plans, false}, {plain_plans, true}};
  for (const auto& [list, nothing_to_escape] : lists) {
    std::string text;
    append_plans_json(list, text);
    EXPECT_EQ(text, plans_to_json(list).dump(-1, ' ', false, Json::error_handler_t::replace));
    // The size is exact where no text needs escaping.
    if (nothing_to_escape) {
      EXPECT_EQ(plans_json_size(list), text.size());
    }
  }
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

// The JSON value type: objects keep insertion order and find keys through
// their index however they were built or cut down; parse_json reads every
// text as nlohmann's parser did.
#include "zenthar_kodrune/workers/wiki/json.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

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

TEST(ParseJson, BadTextIsAValueErrorSayingWhatWasWrong) {
  const std::pair<std::string, std::string> cases[] = {
      {"{\"a\": 1,}", "parse error"}, {"[1] [2]", "parse error"},     {"\"\xff\"", "parse error"},
      {"\"\\ud800\"", "parse error"}, {"[1e999]", "number overflow"},
  };
  for (const auto& [text, message] : cases) {
    try {
      parse_json(text);
      ADD_FAILURE() << text << " was accepted";
    } catch (const ValueError& e) {
      EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << text << ": " << e.what();
    }
  }
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

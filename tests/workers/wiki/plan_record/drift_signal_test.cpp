#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace {

using namespace zenthar_kodrune::workers::wiki;

Json record(const std::string& action, std::optional<Json> level = std::nullopt) {
  Json r = {{"action", action}, {"page_id", "p"}, {"reason", "r"}};
  if (level) r["level"] = *level;
  return r;
}

Amendments repeat(const Json& r, int times) { return Amendments(times, r); }

struct Case {
  const char* name;
  Amendments amendments;
  std::int64_t plan_size;
  std::optional<std::string> expected;
};

TEST(DriftSignal, WarnsWhenStructuralAmendmentsReachAThirdOfThePlan) {
  const std::vector<Case> cases = {
      {"three of ten", repeat(record("add"), 3), 10,
       "3 structural amendments against a 10-page plan \u2014 the pinned structure is churning; "
       "consider a full replan (wiki(action=\"generate\", replan=true) or /kodrune-wiki "
       "--replan)."},
      {"two of ten", repeat(record("add", "module"), 2), 10, std::nullopt},
      {"three of twelve", repeat(record("add"), 3), 12, std::nullopt},
      {"four of twelve", repeat(record("retire", "module"), 4), 12,
       "4 structural amendments against a 12-page plan \u2014 the pinned structure is churning; "
       "consider a full replan (wiki(action=\"generate\", replan=true) or /kodrune-wiki "
       "--replan)."},
      {"ten of thirty", repeat(record("remap", "part"), 10), 30,
       "10 structural amendments against a 30-page plan \u2014 the pinned structure is churning; "
       "consider a full replan (wiki(action=\"generate\", replan=true) or /kodrune-wiki "
       "--replan)."},
      {"add, retire and remap of either pinned level, empty level as module",
       {record("add", "part"), record("retire", ""), record("remap", nullptr)},
       11,
       "3 structural amendments against a 11-page plan \u2014 the pinned structure is churning; "
       "consider a full replan (wiki(action=\"generate\", replan=true) or /kodrune-wiki "
       "--replan)."},
      {"other levels never count",
       {record("add", "overview"), record("retire", "note"), record("add", "overview"),
        record("remap", "guide")},
       4,
       std::nullopt},
      {"other actions never count", repeat(record("extend", "module"), 6), 6, std::nullopt},
      {"an empty plan never warns", repeat(record("add"), 9), 0, std::nullopt},
      {"no amendments", {}, 5, std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(drift_signal(c.amendments, c.plan_size), c.expected) << c.name;
  }
}

TEST(DriftSignal, AmendmentWithoutActionIsKeyErrorNamingIt) {
  Amendments amendments = {record("add"), Json{{"page_id", "module-core"}, {"level", "module"}}};
  try {
    drift_signal(amendments, 10);
    FAIL() << "expected a KeyError";
  } catch (const KeyError& e) {
    EXPECT_EQ(std::string(e.what()), "amendment 1 (page id \"module-core\") has no \"action\"");
  }
}

TEST(DriftSignal, RecordOfWrongShapeIsTypeError) {
  EXPECT_THROW(drift_signal({Json::array({"add"})}, 10), TypeError);
  EXPECT_THROW(drift_signal({Json{{"action", 1}}}, 10), TypeError);
  EXPECT_THROW(drift_signal({Json{{"action", "add"}, {"level", 7}}}, 10), TypeError);
}

}  // namespace

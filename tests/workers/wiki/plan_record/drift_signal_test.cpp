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

std::string warning(int count, int plan_size) {
  // Appended piece by piece: GCC 12 at -O2 warns falsely (-Warray-bounds)
  // on a chain of + over temporaries here.
  std::string text = std::to_string(count);
  text.append(" structural amendments against a ").append(std::to_string(plan_size));
  text.append(
      "-page plan \u2014 the pinned structure is churning; consider a full replan "
      "(wiki(action=\"generate\", replan=true) or /kodrune-wiki --replan).");
  return text;
}

// The thresholds, the levels and actions that never count and an amendment
// without "action" are golden cases (audit_drift_signal); these are the
// readings they leave out.
TEST(DriftSignal, CountsAddRetireAndRemapOfPinnedLevelsOnly) {
  EXPECT_EQ(
      drift_signal({record("add", "part"), record("retire", ""), record("remap", nullptr)}, 9),
      warning(3, 9));
  EXPECT_EQ(
      drift_signal({record("retire", "note"), record("remap", "guide"), record("add", "guide")}, 3),
      std::nullopt);
  EXPECT_EQ(drift_signal({}, 5), std::nullopt);
}

TEST(DriftSignal, RecordOfWrongShapeIsTypeError) {
  EXPECT_THROW(drift_signal({Json::array({"add"})}, 10), TypeError);
  EXPECT_THROW(drift_signal({Json{{"action", 1}}}, 10), TypeError);
  EXPECT_THROW(drift_signal({Json{{"action", "add"}, {"level", 7}}}, 10), TypeError);
}

}  // namespace

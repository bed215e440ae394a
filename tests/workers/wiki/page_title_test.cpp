// Titles: a written page keeps the title stored with it.
#include "workers/wiki/page_title.hpp"

#include <gtest/gtest.h>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

TEST(KeepAgentTitles, OnlyAWrittenPageWithAStoredTitleKeepsIt) {
  Existing existing;
  existing.emplace("written", Json{{"title", "Chosen"}, {"content_hash", "h"}});
  existing.emplace("skeleton", Json{{"title", "Chosen"}});
  existing.emplace("untitled", Json{{"title", ""}, {"content_hash", "h"}});
  existing.emplace("null-hash", Json{{"title", "Chosen"}, {"content_hash", nullptr}});
  PlanList plans;
  for (const char* id : {"written", "skeleton", "untitled", "null-hash", "unstored"}) {
    plans.push_back(make_plan({.page_id = id, .title = "Planned"}));
  }
  const PlanList out = keep_agent_titles(plans, existing);
  ASSERT_EQ(out.size(), 5u);
  EXPECT_EQ(out[0].get(), plans[0].get());
  EXPECT_EQ(plans[0]->title, "Chosen");
  for (std::size_t i = 1; i < plans.size(); ++i) EXPECT_EQ(plans[i]->title, "Planned") << i;
}

TEST(KeepAgentTitles, ATitleThatIsNotTextIsATypeError) {
  Existing existing;
  existing.emplace("p", Json{{"page_id", "p"}, {"title", 3}, {"content_hash", "h"}});
  EXPECT_THROW(keep_agent_titles({make_plan({.page_id = "p"})}, existing), TypeError);
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

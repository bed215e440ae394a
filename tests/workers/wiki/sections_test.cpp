// Changed files of a page and the sections they make stale.
#include "workers/wiki/sections.hpp"

#include <gtest/gtest.h>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

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

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

// Page topics: the title, then the names of at most twelve files.
#include "workers/wiki/page_sources.hpp"

#include <gtest/gtest.h>

namespace zenthar_kodrune::workers::wiki {
namespace {

TEST(UnitTopic, NamesTheLastComponentOfTheFirstTwelveFilesInTheGivenOrder) {
  EXPECT_EQ(unit_topic("Parser", {}), "Parser");
  EXPECT_EQ(unit_topic("Parser", {"src/z.py", "top.py", "a/b/"}), "Parser z.py top.py ");
  std::vector<std::string> files;
  for (char c = 'a'; c <= 'm'; ++c) files.push_back(std::string("d/") + c + ".py");
  EXPECT_EQ(unit_topic("T", files),
            "T a.py b.py c.py d.py e.py f.py g.py h.py i.py j.py k.py l.py");
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

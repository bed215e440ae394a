// Citations written in prose as Markdown links with a line anchor.
#include "workers/wiki/verify.hpp"

#include <gtest/gtest.h>

namespace zenthar_kodrune::workers::wiki {
namespace {

TEST(ProseCitations, LinksWithLineAnchorsInTextOrderRepeatsKept) {
  const Json found = prose_citations(
      "See [`run`](src/a.cpp#L10-L20), then [b](lib/b.py#L7).\n"
      "Again [the\nrun](src/a.cpp#L10-L20) and [`v[0]`](c.h#L3).");
  EXPECT_EQ(found.dump(), R"([{"path":"src/a.cpp","line_start":10,"line_end":20},)"
                          R"({"path":"lib/b.py","line_start":7,"line_end":7},)"
                          R"({"path":"src/a.cpp","line_start":10,"line_end":20},)"
                          R"({"path":"c.h","line_start":3,"line_end":3}])");
}

TEST(ProseCitations, TargetsThatAreNoCitation) {
  const std::vector<std::string> texts = {
      "[a](src/a.cpp)",                   // no anchor
      "[a](src/a.cpp#L)",                 // no line number
      "[a](src/a.cpp#L1-)",               // half a range
      "[a](src/a b.cpp#L1)",              // whitespace in the path
      "[a](src/a\u00a0b.cpp#L1)",         // Unicode whitespace in the path
      "[a](src/a.cpp#x#L1)",              // "#" in the path
      "[a](#L1)",                         // no path
      "[a](a.cpp#L\u0661)",               // not an ASCII digit
      "[a](a.cpp#L1234567890123456789)",  // longer than a 64-bit line number
      "[a] (a.cpp#L1)",                   // not a link
      "[[[a]]](a.cpp#L1)",                // nested too deep
      "[a](a\xff.cpp#L1)",                // invalid UTF-8
  };
  for (const auto& text : texts) EXPECT_EQ(prose_citations(text), Json::array()) << text;
}

TEST(ProseCitations, UnclosedBracketsAndInvalidBytesDoNotHideOrRepeatLinks) {
  const std::vector<std::string> texts = {"[[[ [x [a](a.cpp#L2)", "[x\xff [a](a.cpp#L2)",
                                          "\xff[a](a.cpp#L2)\xff"};
  for (const auto& text : texts) {
    EXPECT_EQ(prose_citations(text).dump(), R"([{"path":"a.cpp","line_start":2,"line_end":2}])")
        << text;
  }
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

// How outside texts are quoted in messages, which paths the index carries,
// and which titles count as one line.
#include "workers/wiki/util/quoting.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using ::testing::HasSubstr;

TEST(Quoting, EscapesWhatALineCannotShowAndKeepsTheRest) {
  const std::pair<std::string, std::string> cases[] = {
      {"src/a.py", "src/a.py"},
      {"src/we\nird.py", "src/we\\nird.py"},
      {"tab\there\r", "tab\\there\\r"},
      {std::string("bad\xff.py"), "bad\\xff.py"},
      {std::string("nul\0x", 5), "nul\\x00x"},
      {"bell\x07", "bell\\x07"},
      {"del\x7f", "del\\x7f"},
      {"c1 \xc2\x85", "c1 \\xc2\\x85"},                          // U+0085, a C1 control character
      {"caf\xc3\xa9 \xe2\x9c\x93", "caf\xc3\xa9 \xe2\x9c\x93"},  // é and ✓ stay
      {"overlong \xc0\xaf", "overlong \\xc0\\xaf"},
      {"cut \xe2\x9c", "cut \\xe2\\x9c"},
      {"back\\slash", "back\\slash"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(util::escaped(text), expected) << expected;
}

TEST(Quoting, QuotesShortInputWholeAndCutsLongInputSayingHowMuchIsLeft) {
  EXPECT_EQ(util::quote_input("module-src"), "\"module-src\"");
  EXPECT_EQ(util::quote_input(""), "\"\"");

  // Built by appending: GCC 12 at -O2 warns falsely on `"\"" + std::string(n, c)`.
  const auto expected = [](std::size_t kept, char c, const char* rest) {
    std::string text(1, '"');
    text.append(kept, c);
    text.append("\"... (");
    text.append(rest);
    return text;
  };
  EXPECT_EQ(util::quote_input(std::string(100000, 'x')), expected(200, 'x', "99800 more bytes)"));

  // A cut never splits a character: 199 bytes, then a two-byte é at 199-200.
  std::string accented(199, 'a');
  accented.append("\xc3\xa9tail");
  EXPECT_EQ(util::quote_input(accented), expected(199, 'a', "6 more bytes)"));
}

TEST(Quoting, CarriesPathsThatAreUtf8WithoutControlCharacters) {
  const std::pair<std::string, bool> cases[] = {
      {"src/a.py", true},
      {"-leading-dash.py", true},
      {"src/caf\xc3\xa9.py", true},   // NFC é
      {"src/cafe\xcc\x81.py", true},  // NFD e + combining acute
      {"src/with space.py", true},
      {"src/we\nird.py", false},
      {"src/tab\t.py", false},
      {std::string("src/bad\xff.py"), false},
      {"src/c1\xc2\x9b.py", false},
  };
  for (const auto& [path, carried] : cases) EXPECT_EQ(util::is_carried_path(path), carried) << path;
}

TEST(Quoting, OneLineTextRefusesControlCharactersNamingCodeAndPlace) {
  EXPECT_NO_THROW(util::check_one_line("Compression: zstd_compress*", "title"));
  EXPECT_NO_THROW(util::check_one_line("Caf\xc3\xa9 \xe2\x80\x94 notes", "title"));
  const std::pair<std::string, std::string> refused[] = {
      {"two\nlines", "U+000A at byte 3"},
      {"tab\tbed", "U+0009 at byte 3"},
      {"\x1b[31mred", "U+001B at byte 0"},
      {"next \xc2\x85line", "U+0085 at byte 5"},
  };
  for (const auto& [title, where] : refused) {
    try {
      util::check_one_line(title, "title of page \"overview\"");
      ADD_FAILURE() << "accepted " << util::escaped(title);
    } catch (const ValueError& e) {
      EXPECT_THAT(e.what(), HasSubstr("title of page \"overview\" holds the control character"));
      EXPECT_THAT(e.what(), HasSubstr(where));
    }
  }
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki

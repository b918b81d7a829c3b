#include <gtest/gtest.h>
#include <quarn/escaped.h>

#include <iomanip>
#include <sstream>
#include <string>
#include <string_view>

namespace {

std::string Shown(std::string_view text) {
  std::ostringstream stream;
  stream << quarn::Escaped{text};
  return stream.str();
}

TEST(Escaped, ShowsTextOfAnyLanguageAsItIs) {
  EXPECT_EQ(Shown(""), "");
  EXPECT_EQ(Shown("plain text, 'quoted' \"twice\" \\ and %s"),
            "plain text, 'quoted' \"twice\" \\ and %s");
  EXPECT_EQ(Shown("Grüße, 你好, \xF0\x9F\x8C\x8D, \xF4\x8F\xBF\xBF"),
            "Grüße, 你好, \xF0\x9F\x8C\x8D, \xF4\x8F\xBF\xBF");
}

TEST(Escaped, KeepsTextOnOneLine) {
  EXPECT_EQ(Shown("one\ntwo\r\nthree\tfour"), "one\\ntwo\\x0d\\nthree\\tfour");
}

TEST(Escaped, LetsNoControlCharacterOut) {
  for (int byte = 0; byte < ' '; ++byte) {
    const std::string shown = Shown(std::string("a") + static_cast<char>(byte) + "b");
    EXPECT_EQ(shown.substr(0, 2), "a\\") << byte;
    EXPECT_EQ(shown.find(static_cast<char>(byte)), std::string::npos) << byte;
    EXPECT_EQ(shown.back(), 'b') << byte;
  }
  EXPECT_EQ(Shown(std::string_view("\0\x1b[2J\x7f", 6)), "\\x00\\x1b[2J\\x7f");
}

TEST(Escaped, LetsNoControlCharacterOutThatTakesTwoBytes) {
  EXPECT_EQ(Shown("\xC2\x80 \xC2\x9B"
                  "31m \xC2\x9F"),
            "\\xc2\\x80 \\xc2\\x9b31m \\xc2\\x9f");
  EXPECT_EQ(Shown("\xC2\xA0"), "\xC2\xA0");  // the first that is none
}

TEST(Escaped, ShowsBytesThatAreNotUtf8ByTheirNumber) {
  EXPECT_EQ(Shown("\x80\xBF\xC0\xC1\xF5\xFF"), "\\x80\\xbf\\xc0\\xc1\\xf5\\xff");
  EXPECT_EQ(Shown("a\xC3"), "a\\xc3");                                      // cut short
  EXPECT_EQ(Shown("\xE2\x82z"), "\\xe2\\x82z");                             // broken off
  EXPECT_EQ(Shown("\xC0\xAF \xE0\x9F\xBF"), "\\xc0\\xaf \\xe0\\x9f\\xbf");  // too long a form
  EXPECT_EQ(Shown("\xF0\x8F\xBF\xBF"), "\\xf0\\x8f\\xbf\\xbf");             // the same
  EXPECT_EQ(Shown("\xED\xA0\x80"), "\\xed\\xa0\\x80");                      // a surrogate
  EXPECT_EQ(Shown("\xF4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");             // past the last one
}

TEST(Escaped, MindsNoFormatOfTheStream) {
  std::ostringstream stream;
  stream << std::setw(9) << std::setfill('#') << std::hex << quarn::Escaped{"a\x1b"};
  EXPECT_EQ(stream.str(), "a\\x1b");
}

}  // namespace

#include <cw/encodable_value.h>
#include <gtest/gtest.h>

#include <cmath>
#include <iomanip>
#include <limits>
#include <sstream>

#include "support/valueless.h"

namespace cw {
namespace {

struct Point {
  int x = 0;
};

std::string Print(const EncodableValue& value) {
  std::ostringstream stream;
  stream << value;
  return stream.str();
}

TEST(EncodableValuePrint, ShowsEachKind) {
  EXPECT_EQ(Print(nullptr), "null");
  EXPECT_EQ(Print(true), "true");
  EXPECT_EQ(Print(false), "false");
  EXPECT_EQ(Print(-7), "-7");
  EXPECT_EQ(Print(std::int64_t{7}), "7L");
  EXPECT_EQ(Print("text"), "\"text\"");
  EXPECT_EQ(Print(std::vector<std::uint8_t>{0, 10, 255}), "bytes[00 0a ff]");
  EXPECT_EQ(Print(std::vector<std::int32_t>{1, -2}), "int32[1, -2]");
  EXPECT_EQ(Print(std::vector<std::int64_t>{3}), "int64[3]");
  EXPECT_EQ(Print(std::vector<double>{1, 0.5}), "double[1.0, 0.5]");
  EXPECT_EQ(Print(std::vector<float>{0.1F}), "float[0.1]");
  EXPECT_EQ(Print(EncodableValue(EncodableList{1, "a"})), "[1, \"a\"]");
  EXPECT_EQ(Print(EncodableValue(EncodableMap{{"id", 7}, {2, nullptr}})), "{2: null, \"id\": 7}");
}

TEST(EncodableValuePrint, ShowsEmptyKinds) {
  EXPECT_EQ(Print(""), "\"\"");
  EXPECT_EQ(Print(EncodableValue(EncodableList())), "[]");
  EXPECT_EQ(Print(EncodableValue(EncodableMap())), "{}");
  EXPECT_EQ(Print(std::vector<float>()), "float[]");
}

TEST(EncodableValuePrint, ShowsDoublesAsNoIntegers) {
  EXPECT_EQ(Print(7.0), "7.0");
  EXPECT_EQ(Print(-0.0), "-0.0");
  EXPECT_EQ(Print(0.1), "0.1");
  EXPECT_EQ(Print(1e300), "1e+300");
  EXPECT_EQ(Print(HUGE_VAL), "inf");
  EXPECT_EQ(Print(std::numeric_limits<double>::quiet_NaN()), "nan");
}

TEST(EncodableValuePrint, NamesTheTypeOfACustomValue) {
  EXPECT_EQ(Print(CustomEncodableValue(1)), "custom(int)");
  EXPECT_NE(Print(CustomEncodableValue(Point())).find("Point"), std::string::npos);
  CustomEncodableValue moved(1);
  const CustomEncodableValue target = std::move(moved);
  EXPECT_EQ(Print(moved), "custom()");  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(Print(target), "custom(int)");
}

TEST(EncodableValuePrint, StaysOnOneLine) {
  EXPECT_EQ(Print("a\nb\tc\rd\"e\\f\x7F"), "\"a\\nb\\tc\\x0dd\\\"e\\\\f\\x7f\"");
}

TEST(EncodableValuePrint, KeepsGoodUtf8AndMarksBadBytes) {
  EXPECT_EQ(Print("\u00E9\u65E5\U0001F600"), "\"\u00E9\u65E5\U0001F600\"");
  EXPECT_EQ(Print("\x80"), "\"\\x80\"");  // continues nothing
  EXPECT_EQ(Print("\xC3"), "\"\\xc3\"");  // ends too soon
  EXPECT_EQ(Print("\xC3("
                  "x"),
            "\"\\xc3(x\"");                                 // continued wrongly
  EXPECT_EQ(Print("\xC0\xAF"), "\"\\xc0\\xaf\"");           // overlong
  EXPECT_EQ(Print("\xE0\x80\x80"), "\"\\xe0\\x80\\x80\"");  // overlong
  EXPECT_EQ(Print("\xED\xA0\x80"), "\"\\xed\\xa0\\x80\"");  // a surrogate
  EXPECT_EQ(Print("\xF0\x80\x80\x80"), "\"\\xf0\\x80\\x80\\x80\"");
  EXPECT_EQ(Print("\xF4\x90\x80\x80"), "\"\\xf4\\x90\\x80\\x80\"");
  EXPECT_EQ(Print("\xFF"), "\"\\xff\"");
  EXPECT_EQ(Print("\xC2\x9B"), "\"\\xc2\\x9b\"");  // a control character of two bytes
  EXPECT_EQ(Print("\uD7FF\U0010FFFF\u0800\U00010000"), "\"\uD7FF\U0010FFFF\u0800\U00010000\"");
}

TEST(EncodableValuePrint, ClipsLongTextsBetweenCharacters) {
  EXPECT_EQ(Print(std::string(120, 'a')), "\"" + std::string(120, 'a') + "\"");
  EXPECT_EQ(Print(std::string(121, 'a')), "\"" + std::string(120, 'a') + "\"... (121 bytes)");
  EXPECT_EQ(Print(std::string(119, 'a') + "\u00E9b"),
            "\"" + std::string(119, 'a') + "\u00E9\"... (122 bytes)");
}

TEST(EncodableValuePrint, ClipsLongLists) {
  EXPECT_EQ(Print(std::vector<std::int32_t>(1000, 5)),
            "int32[5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, ... (1000 items)]");
  EXPECT_EQ(Print(std::vector<std::int32_t>(16, 5)),
            "int32[5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5]");
}

TEST(EncodableValuePrint, ClipsEveryKindOfList) {
  const EncodableList lists{
      std::vector<std::uint8_t>(17), std::vector<std::int32_t>(17),
      std::vector<std::int64_t>(17), std::vector<double>(17),
      std::vector<float>(17),        EncodableValue(EncodableList(17)),
  };
  for (const EncodableValue& list : lists) {
    const std::string line = Print(list);
    EXPECT_EQ(line.substr(line.size() - 15), "... (17 items)]") << line;
  }
  EncodableMap map;
  for (int i = 0; i < 17; ++i) {
    map.emplace(i, i);
  }
  const std::string line = Print(EncodableValue(map));
  EXPECT_EQ(line.substr(line.size() - 25), ", 15: 15, ... (17 items)}");
}

TEST(EncodableValuePrint, ShowsAValueThatAnExceptionEmptiedAsNull) {
  const EncodableValue value = test_support::MakeValueless();
  EXPECT_EQ(Print(value), "null");
}

TEST(EncodableValuePrint, ClipsDeepNesting) {
  EncodableValue value(7);
  for (int i = 0; i < 9; ++i) {
    value = EncodableValue(EncodableList{EncodableValue(EncodableMap{{1, value}})});
  }
  EXPECT_EQ(Print(value), "[{1: [{1: [{1: [{1: [... (1 items)]}]}]}]}]");
}

TEST(EncodableValuePrint, ClipsTheWholeLine) {
  const EncodableValue list(EncodableList(16, EncodableValue(std::string(100, 'a'))));
  EncodableValue value(EncodableList(16, list));
  value = EncodableValue(EncodableList(16, value));
  EXPECT_LT(Print(value).size(), 3000U);
  EXPECT_EQ(Print(value).substr(Print(value).size() - 17), ", ... (16 items)]");
}

TEST(EncodableValuePrint, DoesNotDependOnTheNumberFormatOfTheStream) {
  std::ostringstream stream;
  stream << std::hex << std::setprecision(2) << std::fixed
         << EncodableValue(EncodableList{255, 0.125});
  EXPECT_EQ(stream.str(), "[255, 0.125]");
}

}  // namespace
}  // namespace cw

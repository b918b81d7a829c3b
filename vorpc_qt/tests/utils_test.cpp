#include <cw/codec_limits.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vorpc/qt/utils.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <cmath>
#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "support/capture.h"
#include "support/log_line.h"
#include "support/valueless.h"

// Printed by GoogleTest, which finds this beside the type.
static void PrintTo(const QJsonValue& value, std::ostream* stream) {
  const QByteArray text = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
  *stream << (value.isUndefined() ? "undefined" : text.toStdString());
}

namespace vorpc::qt {
namespace {

using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;
using testing::HasSubstr;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr std::int64_t kTwoTo53 = std::int64_t{1} << 53;

constexpr auto kInfiniteLine = "Infinite double value cannot be represented as a JSON value";
constexpr auto kNanLine = "Non-a-number value cannot be represented as a JSON value";
constexpr auto kKeyLine = "The key used to create a JSON object must have a string value";
constexpr auto kValueLine = "The EncodableValue cannot be represented as a JSON value";
constexpr auto kJsonLine = "The JSON value cannot be represented as a EncodableValue";

QJsonValue ToJson(const EncodableValue& value) {
  QJsonValue json("not written");
  EXPECT_TRUE(EncodableToJson(value, json)) << value;
  return json;
}

// Expects a failure that leaves `undefined`; gives what was logged.
std::string FailToJson(const EncodableValue& value) {
  QJsonValue json("not written");
  bool success = true;
  std::string log = StdoutOf([&] { success = EncodableToJson(value, json); });
  EXPECT_FALSE(success) << value;
  EXPECT_TRUE(json.isUndefined());
  return log;
}

EncodableValue FromJson(const QJsonValue& json) {
  EncodableValue value("not written");
  bool success = false;
  StdoutOf([&] { success = JsonToEncodable(json, value); });
  EXPECT_TRUE(success);
  return value;
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

// --- Values to JSON ---

TEST(EncodableToJson, KeepsNullAndBooleans) {
  EXPECT_TRUE(ToJson({}).isNull());
  EXPECT_EQ(ToJson(true), QJsonValue(true));
  EXPECT_EQ(ToJson(false), QJsonValue(false));
}

TEST(EncodableToJson, TakesAValueThatAnExceptionEmptiedForNull) {
  EXPECT_EQ(ToJson(EncodableList{cw::test_support::MakeValueless()}),
            QJsonValue(QJsonArray{QJsonValue()}));
}

TEST(EncodableToJson, TurnsSmallIntegersIntoNumbers) {
  EXPECT_EQ(ToJson(INT32_MIN), QJsonValue(-2147483648.0));
  EXPECT_EQ(ToJson(INT32_MAX), QJsonValue(2147483647.0));
  EXPECT_EQ(ToJson(std::int64_t{5}), QJsonValue(5.0));
}

TEST(EncodableToJson, TurnsIntegersUpToTwoToThe53IntoNumbersAndLargerOnesIntoTheirDigits) {
  EXPECT_EQ(ToJson(kTwoTo53), QJsonValue(9007199254740992.0));
  EXPECT_EQ(ToJson(-kTwoTo53), QJsonValue(-9007199254740992.0));
  EXPECT_EQ(ToJson(kTwoTo53 + 1), QJsonValue("9007199254740993"));
  EXPECT_EQ(ToJson(-kTwoTo53 - 1), QJsonValue("-9007199254740993"));
  EXPECT_EQ(ToJson(INT64_MIN), QJsonValue("-9223372036854775808"));
  EXPECT_EQ(ToJson(INT64_MAX), QJsonValue("9223372036854775807"));
}

TEST(EncodableToJson, KeepsFiniteDoubles) {
  for (const double value : {0.0, 0.5, -1e300, std::numeric_limits<double>::max(),
                             std::numeric_limits<double>::denorm_min()}) {
    EXPECT_EQ(ToJson(value), QJsonValue(value));
  }
}

TEST(EncodableToJson, RefusesInfinities) {
  EXPECT_THAT(FailToJson(kInfinity), IsLogLine("error", kInfiniteLine));
  EXPECT_THAT(FailToJson(-kInfinity), IsLogLine("error", kInfiniteLine));
}

TEST(EncodableToJson, RefusesNotANumber) {
  EXPECT_THAT(FailToJson(std::nan("")), IsLogLine("error", kNanLine));
}

TEST(EncodableToJson, ReadsTextsAsUtf8) {
  EXPECT_EQ(ToJson("\xC3\xA9\xF0\x9F\x98\x80"),
            QJsonValue(QString::fromUtf8("\xC3\xA9\xF0\x9F\x98\x80")));
  EXPECT_EQ(ToJson(""), QJsonValue(""));
  EXPECT_EQ(ToJson(std::string("a\0b", 3)), QJsonValue(QString::fromUtf8("a\0b", 3)));
}

TEST(EncodableToJson, KeepsByteOrderMarksWhereverTheyStand) {
  const std::string mark = "\xEF\xBB\xBF";
  for (const std::string& text : {mark, mark + "a", "a" + mark, mark + mark + "a"}) {
    EXPECT_EQ(ToJson(text).toString().toStdString(), text);
    EXPECT_EQ(FromJson(ToJson(text)), EncodableValue(text));
  }
}

TEST(EncodableMapToJsonObject, KeepsKeysApartThatDifferInAByteOrderMark) {
  const std::string mark = "\xEF\xBB\xBF";
  const EncodableMap map{{"a", 1}, {mark + "a", 2}, {mark, 3}, {"", 4}};
  QJsonObject object;
  EXPECT_TRUE(EncodableMapToJsonObject(map, object));
  EXPECT_EQ(object.size(), 4);
  EncodableMap back;
  EXPECT_TRUE(JsonObjectToEncodableMap(object, back));
  EXPECT_EQ(back, map);
}

TEST(EncodableMapToJsonObject, WarnsOfKeysThatBecomeOneAsTheyAreNoUtf8) {
  const EncodableMap map{{"\xFE", 1}, {"\xFF", 2}, {"a", 3}};
  QJsonObject object;
  const std::string log = StdoutOf([&] { EXPECT_TRUE(EncodableMapToJsonObject(map, object)); });
  EXPECT_EQ(object, (QJsonObject{{QString(QChar(QChar::ReplacementCharacter)), 2}, {"a", 3}}));
  EXPECT_THAT(log,
              IsLogLine("warn",
                        "Two keys that are not valid text became the one key \"\xEF\xBF\xBD\": "
                        "one of their values is lost. Use keys in valid UTF-8."));
}

TEST(JsonObjectToEncodableMap, WarnsOfKeysThatBecomeOneAsTheyAreLoneSurrogates) {
  const QJsonObject object{
      {QString(QChar(0xD800)), 1}, {QString(QChar(0xD801)), 2}, {QString("a"), 3}};
  EncodableMap map;
  const std::string log = StdoutOf([&] { EXPECT_TRUE(JsonObjectToEncodableMap(object, map)); });
  EXPECT_EQ(map.size(), 2U);
  EXPECT_THAT(log, HasSubstr("Two keys that are not valid text became the one key"));
}

TEST(EncodableToJson, TurnsBytesIntoBase64) {
  EXPECT_EQ(ToJson(std::vector<std::uint8_t>{1, 2, 255, 0}), QJsonValue("AQL/AA=="));
  EXPECT_EQ(ToJson(std::vector<std::uint8_t>{}), QJsonValue(""));
}

TEST(EncodableToJson, TurnsTypedListsIntoArrays) {
  EXPECT_EQ(ToJson(std::vector<std::int32_t>{1, -2}), QJsonValue(QJsonArray{1, -2}));
  EXPECT_EQ(ToJson(std::vector<std::int64_t>{1, kTwoTo53 + 1}),
            QJsonValue(QJsonArray{1, "9007199254740993"}));
  EXPECT_EQ(ToJson(std::vector<double>{1.5}), QJsonValue(QJsonArray{1.5}));
  EXPECT_EQ(ToJson(std::vector<float>{0.1F}), QJsonValue(QJsonArray{static_cast<double>(0.1F)}));
  EXPECT_EQ(ToJson(std::vector<float>{}), QJsonValue(QJsonArray()));
}

TEST(EncodableToJson, RefusesAListWithAnInfiniteOrUndefinedNumber) {
  EXPECT_THAT(FailToJson(std::vector<double>{1, kInfinity, std::nan("")}),
              IsLogLine("error", kInfiniteLine));
  EXPECT_THAT(FailToJson(std::vector<float>{std::nanf("")}), IsLogLine("error", kNanLine));
  EXPECT_THAT(FailToJson(std::vector<float>{-std::numeric_limits<float>::infinity()}),
              IsLogLine("error", kInfiniteLine));
}

TEST(EncodableToJson, ConvertsListsItemByItem) {
  EXPECT_EQ(ToJson(EncodableList{1, "a", {}, EncodableList{true}}),
            QJsonValue(QJsonArray{1, "a", QJsonValue(), QJsonArray{true}}));
}

TEST(EncodableToJson, StopsAtTheFirstItemThatFails) {
  EXPECT_THAT(FailToJson(EncodableList{1, kInfinity, std::nan("")}),
              IsLogLine("error", kInfiniteLine));
}

TEST(EncodableToJson, RefusesACustomValueWithoutAWord) {
  EXPECT_EQ(FailToJson(cw::CustomEncodableValue(5)), "");
  EXPECT_EQ(FailToJson(EncodableList{cw::CustomEncodableValue(5)}), "");
}

TEST(EncodableToJson, TurnsMapsIntoObjects) {
  EXPECT_EQ(ToJson(EncodableMap{{"b", 1}, {"a", EncodableMap{}}}),
            QJsonValue(QJsonObject{{"a", QJsonObject()}, {"b", 1}}));
}

TEST(EncodableToJson, LogsEveryMapAroundABadValue) {
  const EncodableValue value(
      EncodableMap{{"a", EncodableMap{{"b", EncodableMap{{"c", kInfinity}}}}}});
  const std::string log = FailToJson(value);
  EXPECT_EQ(Count(log, kInfiniteLine), 1U);
  EXPECT_EQ(Count(log, kValueLine), 3U);
  EXPECT_EQ(Count(log, "\n"), 4U);
}

TEST(EncodableToJson, RefusesAMapWithAKeyThatIsNoString) {
  EXPECT_THAT(FailToJson(EncodableMap{{1, "a"}}), IsLogLine("error", kKeyLine));
  const std::string log = FailToJson(EncodableMap{{"a", EncodableMap{{true, kInfinity}}}});
  EXPECT_EQ(Count(log, kKeyLine), 1U);
  EXPECT_EQ(Count(log, kValueLine), 1U);
  EXPECT_EQ(Count(log, "\n"), 2U);
}

TEST(EncodableToJson, LogsOnlyTheMapsAroundACustomValue) {
  const std::string log = FailToJson(
      EncodableMap{{"a", EncodableList{EncodableMap{{"b", cw::CustomEncodableValue(5)}}}}});
  EXPECT_EQ(Count(log, kValueLine), 2U);
  EXPECT_EQ(Count(log, "\n"), 2U);
}

// --- Maps to objects ---

TEST(EncodableMapToJsonObject, GivesAnEmptyObjectForAnEmptyMap) {
  QJsonObject object{{"old", 1}};
  EXPECT_TRUE(EncodableMapToJsonObject({}, object));
  EXPECT_TRUE(object.isEmpty());
}

TEST(EncodableMapToJsonObject, DecodesKeysFromUtf8) {
  QJsonObject object;
  EXPECT_TRUE(EncodableMapToJsonObject({{"\xC3\xA9", 1}}, object));
  EXPECT_EQ(object, (QJsonObject{{QString::fromUtf8("\xC3\xA9"), 1}}));
}

TEST(EncodableMapToJsonObject, RefusesAKeyThatIsNoString) {
  QJsonObject object{{"old", 1}};
  bool success = true;
  EXPECT_THAT(StdoutOf([&] {
                success = EncodableMapToJsonObject({{1, 1}, {"a", kInfinity}}, object);
              }),
              IsLogLine("error", kKeyLine));
  EXPECT_FALSE(success);
  EXPECT_TRUE(object.isEmpty());
}

TEST(EncodableMapToJsonObject, RefusesAValueThatCannotBeConverted) {
  QJsonObject object{{"old", 1}};
  bool success = true;
  EXPECT_THAT(StdoutOf([&] {
                success = EncodableMapToJsonObject(
                    {{"a", 1}, {"b", cw::CustomEncodableValue(1)}, {"c", 3}}, object);
              }),
              IsLogLine("error", kValueLine));
  EXPECT_FALSE(success);
  EXPECT_TRUE(object.isEmpty());
}

TEST(EncodableMapToJsonString, IsCompact) {
  EXPECT_EQ(EncodableMapToJsonString({{"a", 1}, {"b", EncodableList{"x", {}}}}),
            QString("{\"a\":1,\"b\":[\"x\",null]}"));
  EXPECT_EQ(EncodableMapToJsonString({}), QString("{}"));
}

TEST(EncodableMapToJsonString, KeepsTextsBeyondAscii) {
  EXPECT_EQ(EncodableMapToJsonString({{"\xC3\xA9", "\xF0\x9F\x98\x80"}}),
            QString::fromUtf8("{\"\xC3\xA9\":\"\xF0\x9F\x98\x80\"}"));
}

TEST(EncodableMapToJsonString, IsANullStringForACustomValueAnywhere) {
  QString text("old");
  StdoutOf([&text] {
    text = EncodableMapToJsonString(
        {{"a", EncodableList{EncodableMap{{"b", cw::CustomEncodableValue(1)}}}}});
  });
  EXPECT_TRUE(text.isNull());
}

// --- JSON to values ---

TEST(JsonToEncodable, KeepsNullAndBooleans) {
  EXPECT_TRUE(FromJson(QJsonValue(QJsonValue::Null)).IsNull());
  EXPECT_EQ(FromJson(true), EncodableValue(true));
}

TEST(JsonToEncodable, GivesIntegralNumbersTheSmallestIntegerThatHoldsThem) {
  EXPECT_EQ(FromJson(2147483647.0), EncodableValue(INT32_MAX));
  EXPECT_EQ(FromJson(-2147483648.0), EncodableValue(INT32_MIN));
  EXPECT_EQ(FromJson(2147483648.0), EncodableValue(std::int64_t{2147483648}));
  EXPECT_EQ(FromJson(-2147483649.0), EncodableValue(std::int64_t{-2147483649}));
  EXPECT_EQ(FromJson(2.0), EncodableValue(2));
}

TEST(JsonToEncodable, KeepsOtherNumbersAsDoubles) {
  EXPECT_EQ(FromJson(2.5), EncodableValue(2.5));
  EXPECT_EQ(FromJson(1e300), EncodableValue(1e300));
  EXPECT_EQ(FromJson(9223372036854775808.0), EncodableValue(9223372036854775808.0));
}

TEST(JsonToEncodable, TurnsTextsOfDigitsIntoIntegers) {
  EXPECT_EQ(FromJson("42"), EncodableValue(42));
  EXPECT_EQ(FromJson("-2147483649"), EncodableValue(std::int64_t{-2147483649}));
  EXPECT_EQ(FromJson("9223372036854775807"), EncodableValue(INT64_MAX));
  EXPECT_EQ(FromJson("007"), EncodableValue(7));
}

TEST(JsonToEncodable, KeepsOtherTexts) {
  for (const char* const text : {"", "12a", "+5", " 5", "-", "9223372036854775808", "\xC3\xA9"}) {
    EXPECT_EQ(FromJson(QString::fromUtf8(text)), EncodableValue(text));
  }
}

TEST(JsonToEncodable, GivesArraysOfNumbersTheTightestTypedList) {
  EXPECT_EQ(FromJson(QJsonArray()), EncodableValue(std::vector<std::int32_t>()));
  EXPECT_EQ(FromJson(QJsonArray{1, -2}), EncodableValue(std::vector<std::int32_t>{1, -2}));
  EXPECT_EQ(FromJson(QJsonArray{1, 4294967296.0}),
            EncodableValue(std::vector<std::int64_t>{1, 4294967296}));
  EXPECT_EQ(FromJson(QJsonArray{-2147483649.0}),
            EncodableValue(std::vector<std::int64_t>{-2147483649}));
  EXPECT_EQ(FromJson(QJsonArray{1, 2.5}), EncodableValue(std::vector<double>{1, 2.5}));
  EXPECT_EQ(FromJson(QJsonArray{4294967296.0, 2.5, 1}),
            EncodableValue(std::vector<double>{4294967296.0, 2.5, 1}));
}

TEST(JsonToEncodable, GivesOtherArraysAList) {
  EXPECT_EQ(FromJson(QJsonArray{1, "a"}), EncodableValue(EncodableList{1, "a"}));
  EXPECT_EQ(FromJson(QJsonArray{2.5, 4294967296.0, "7", QJsonValue(), QJsonArray{1}}),
            EncodableValue(
                EncodableList{2.5, std::int64_t{4294967296}, 7, {}, std::vector<std::int32_t>{1}}));
}

TEST(JsonToEncodable, GivesAListForIntegersThatBecameTexts) {
  const QJsonValue json = ToJson(std::vector<std::int64_t>{1, kTwoTo53 + 1});
  EXPECT_EQ(FromJson(json), EncodableValue(EncodableList{1, kTwoTo53 + 1}));
}

// A text is first read as an integer; what cannot be read so is reported, and kept as a text.
TEST(JsonToEncodable, WarnsOfEveryTextThatIsNoInteger) {
  EncodableValue value;
  EXPECT_THAT(StdoutOf([&value] { JsonToEncodable("plain", value); }),
              IsLogLine("warn", "Could not convert string \"plain\" to integer value."));
  EXPECT_EQ(value, EncodableValue("plain"));
  EXPECT_THAT(StdoutOf([&value] { JsonToEncodable("", value); }),
              IsLogLine("warn", "Could not convert empty string to uint."));
  EXPECT_EQ(value, EncodableValue(""));
  EXPECT_EQ(StdoutOf([&value] { JsonToEncodable("42", value); }), "");
}

TEST(JsonToEncodable, RefusesAnUndefinedValue) {
  EncodableValue value("old");
  EXPECT_FALSE(JsonToEncodable(QJsonValue(QJsonValue::Undefined), value));
  EXPECT_TRUE(value.IsNull());
}

TEST(JsonToEncodable, TurnsObjectsIntoMapsWithStringKeys) {
  EXPECT_EQ(FromJson(QJsonObject{{"b", 1}, {"7", QJsonObject{{"c", "x"}}}}),
            EncodableValue(EncodableMap{{"7", EncodableMap{{"c", "x"}}}, {"b", 1}}));
}

TEST(JsonObjectToEncodableMap, ReplacesItsOutput) {
  EncodableMap map{{"old", 1}};
  EXPECT_TRUE(JsonObjectToEncodableMap({{"a", 1}}, map));
  EXPECT_EQ(map, (EncodableMap{{"a", 1}}));
  EXPECT_TRUE(JsonObjectToEncodableMap({}, map));
  EXPECT_TRUE(map.empty());
}

// --- Depth ---

QJsonValue NestedJson(std::size_t levels, bool objects) {
  QJsonValue json("end");
  for (std::size_t i = 0; i < levels; ++i) {
    json = objects ? QJsonValue(QJsonObject{{"a", json}}) : QJsonValue(QJsonArray{json});
  }
  return json;
}

EncodableValue NestedValue(std::size_t levels, bool maps) {
  EncodableValue value("end");
  for (std::size_t i = 0; i < levels; ++i) {
    EncodableValue outer;
    if (maps) {
      outer.emplace<EncodableMap>().emplace("a", std::move(value));
    } else {
      outer.emplace<EncodableList>().push_back(std::move(value));
    }
    value = std::move(outer);
  }
  return value;
}

class Depth : public testing::TestWithParam<bool> {};

TEST_P(Depth, UpToTheBoundConvertsBothWays) {
  EXPECT_EQ(ToJson(NestedValue(cw::kMaxNesting, GetParam())),
            NestedJson(cw::kMaxNesting, GetParam()));
  EXPECT_EQ(FromJson(NestedJson(cw::kMaxNesting, GetParam())),
            NestedValue(cw::kMaxNesting, GetParam()));
}

TEST_P(Depth, BeyondTheBoundFailsAndSaysSo) {
  EXPECT_THAT(FailToJson(NestedValue(cw::kMaxNesting + 1, GetParam())),
              HasSubstr("nests deeper than 512 lists and maps"));
  EncodableValue value("old");
  bool success = true;
  EXPECT_THAT(StdoutOf([&] {
                success = JsonToEncodable(NestedJson(cw::kMaxNesting + 1, GetParam()), value);
              }),
              HasSubstr("nests deeper than 512 lists and maps"));
  EXPECT_FALSE(success);
  EXPECT_TRUE(value.IsNull());
}

INSTANTIATE_TEST_SUITE_P(ListsAndMaps, Depth, testing::Bool());

TEST(JsonObjectToEncodableMap, LogsEveryObjectAroundAValueThatFails) {
  EncodableMap map{{"old", 1}};
  bool success = true;
  const std::string log = StdoutOf([&] {
    success = JsonObjectToEncodableMap(
        {{"a", QJsonObject{{"b", NestedJson(cw::kMaxNesting, false)}}}}, map);
  });
  EXPECT_FALSE(success);
  EXPECT_TRUE(map.empty());
  EXPECT_EQ(Count(log, kJsonLine), 2U);
  EXPECT_EQ(Count(log, "\n"), 3U) << log;
  EXPECT_EQ(Count("\n" + log, "\n[error] "), 3U) << log;
}

}  // namespace
}  // namespace vorpc::qt

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/value.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <utility>
#include <vector>

#include "values.h"

namespace {

using counting::Texts;
using counting::Totals;
using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;
using tarv::FromEncodable;
using tarv::ToEncodable;
using testing::ElementsAre;
using zoo::Color;
using zoo::Everything;

template <class T>
std::string ReadingError(const EncodableValue& value) {
  try {
    FromEncodable<T>(value, "params");
  } catch (const tarv::ValueError& error) {
    return error.what();
  }
  return "it fits";
}

template <class T>
std::string WritingError(T value) {
  try {
    ToEncodable(std::move(value), "params");
  } catch (const tarv::ValueError& error) {
    return error.what();
  }
  return "it fits";
}

Everything Sample() {
  Everything sample;
  sample.flag = true;
  sample.tiny = -128;
  sample.small = 65535;
  sample.medium = 4294967295U;
  sample.large = 9223372036854775807U;
  sample.single = 0.5F;
  sample.precise = 0.1;
  sample.text = "t";
  sample.bytes = {1, 255};
  sample.shorts = {-1, 2};
  sample.words = {4294967295U};
  sample.longs = {1LL << 40};
  sample.floats = {1.5F};
  sample.doubles = {2.5};
  sample.flags = {true, false};
  sample.counts = {{"a", 1}};
  sample.colors = {{"b", Color::kGreen}};
  sample.note = "n";
  sample.holes = {1, std::nullopt};
  sample.color = Color::kGreen;
  sample.node = {"root", {{"leaf", {}}}};
  sample.any = EncodableList{1, "x"};
  return sample;
}

TEST(Value, TravelsAsAMapOfItsMembers) {
  EXPECT_EQ(ToEncodable(Totals{7, {3, 4}}),
            EncodableValue(EncodableMap{{"total", std::int64_t{7}},
                                        {"each", std::vector<std::int32_t>{3, 4}}}));
  EXPECT_EQ(ToEncodable(zoo::Nothing()), EncodableValue(EncodableMap()));
}

TEST(Value, GivesEveryKindOfMemberTheKindThatTheTableNames) {
  const EncodableMap expected{
      {"flag", true},
      {"tiny", -128},
      {"small", 65535},
      {"medium", std::int64_t{4294967295}},
      {"large", std::int64_t{9223372036854775807}},
      {"single", 0.5},
      {"precise", 0.1},
      {"text", "t"},
      {"bytes", std::vector<std::uint8_t>{1, 255}},
      {"shorts", std::vector<std::int32_t>{-1, 2}},
      {"words", std::vector<std::int64_t>{4294967295}},
      {"longs", std::vector<std::int64_t>{1LL << 40}},
      {"floats", std::vector<float>{1.5F}},
      {"doubles", std::vector<double>{2.5}},
      {"flags", EncodableList{true, false}},
      {"counts", EncodableMap{{"a", 1}}},
      {"colors", EncodableMap{{"b", "kGreen"}}},
      {"note", "n"},
      {"holes", EncodableList{1, nullptr}},
      {"color", "kGreen"},
      {"nothing", EncodableMap()},
      {"node", EncodableMap{{"name", "root"},
                            {"children", EncodableList{EncodableMap{
                                             {"name", "leaf"}, {"children", EncodableList()}}}}}},
      {"any", EncodableList{1, "x"}}};
  EXPECT_EQ(ToEncodable(Sample()), EncodableValue(expected));
}

TEST(Value, ComesBackAsItWent) {
  const EncodableValue sent = ToEncodable(Sample());
  EXPECT_EQ(ToEncodable(FromEncodable<Everything>(EncodableValue::Deserialize(sent.Serialize()))),
            sent);
}

TEST(Value, MayHave32Members) {
  zoo::Wide wide;
  wide.a1 = 1;
  wide.a32 = 32;
  const auto back = FromEncodable<zoo::Wide>(ToEncodable(wide));
  EXPECT_EQ(back.a1, 1);
  EXPECT_EQ(back.a32, 32);
  EXPECT_EQ(ToEncodable(wide).AsMap()->size(), 32U);
}

TEST(Value, WritesAnEmptyListOfNumbersAsAPlainOne) {
  EXPECT_EQ(*ToEncodable(Totals{}).Find("each"), EncodableValue(EncodableList()));
  EXPECT_EQ(ToEncodable(std::vector<float>()), EncodableValue(EncodableList()));
  EXPECT_EQ(ToEncodable(std::vector<std::uint8_t>()), EncodableValue(std::vector<std::uint8_t>()));
}

TEST(Value, ReadsListsOfNumbersInEveryForm) {
  const std::vector<EncodableValue> forms{
      EncodableList{1, std::int64_t{2}}, std::vector<std::uint8_t>{1, 2},
      std::vector<std::int32_t>{1, 2}, std::vector<std::int64_t>{1, 2}};
  for (const EncodableValue& form : forms) {
    EXPECT_THAT(FromEncodable<std::vector<std::int32_t>>(form), ElementsAre(1, 2)) << form;
    EXPECT_THAT(FromEncodable<std::vector<std::uint64_t>>(form), ElementsAre(1, 2)) << form;
    EXPECT_THAT(FromEncodable<std::vector<std::uint8_t>>(form), ElementsAre(1, 2)) << form;
    EXPECT_THAT(FromEncodable<std::vector<double>>(form), ElementsAre(1, 2)) << form;
  }
  EXPECT_THAT(FromEncodable<std::vector<double>>(std::vector<float>{0.5F}), ElementsAre(0.5));
  EXPECT_THAT(FromEncodable<std::vector<float>>(std::vector<double>{0.5}), ElementsAre(0.5F));
}

TEST(Value, ReadsAnEmptyListOfAnyKindAsAnEmptyList) {
  for (const EncodableValue& form :
       {EncodableValue(EncodableList()), EncodableValue(std::vector<std::int32_t>()),
        EncodableValue(std::vector<double>()), EncodableValue(std::vector<std::uint8_t>())}) {
    EXPECT_TRUE(FromEncodable<std::vector<std::string>>(form).empty()) << form;
    EXPECT_TRUE(FromEncodable<std::vector<std::int32_t>>(form).empty()) << form;
  }
}

TEST(Value, ReadsAListOfNumbersWhereAnyListWillDo) {
  const EncodableValue numbers(std::vector<std::int32_t>{1, 2});
  EXPECT_THAT(FromEncodable<std::vector<std::optional<int>>>(numbers), ElementsAre(1, 2));
  EXPECT_THAT(FromEncodable<std::vector<EncodableValue>>(numbers),
              ElementsAre(EncodableValue(1), EncodableValue(2)));
}

TEST(Value, ReadsIntegersOfEitherWidthThatFit) {
  EXPECT_EQ(FromEncodable<std::int32_t>(std::int64_t{5}), 5);
  EXPECT_EQ(FromEncodable<std::int64_t>(5), 5);
  EXPECT_EQ(FromEncodable<double>(5), 5.0);
}

TEST(Value, ReadsEveryNumberThatAFloatHolds) {
  const double greatest = std::numeric_limits<float>::max();
  EXPECT_EQ(FromEncodable<float>(greatest), std::numeric_limits<float>::max());
  EXPECT_EQ(FromEncodable<float>(-greatest), std::numeric_limits<float>::lowest());
  EXPECT_EQ(ReadingError<float>(2 * greatest).substr(0, 24), "params: expected a float");
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(FromEncodable<float>(-infinity), -std::numeric_limits<float>::infinity());
  EXPECT_TRUE(std::isnan(FromEncodable<float>(std::numeric_limits<double>::quiet_NaN())));
}

TEST(Value, IgnoresMembersThatItDoesNotKnow) {
  EXPECT_EQ(FromEncodable<counting::Step>(EncodableMap{{"done", 1}, {"of", 2}, {"new", 3}}).of, 2);
}

TEST(Value, LeavesAnEmptyOptionalOutAndReadsBothForms) {
  EXPECT_EQ(ToEncodable(Everything()).Find("note"), nullptr);
  EncodableMap without = *ToEncodable(Sample()).AsMap();
  without.erase("note");
  EXPECT_EQ(FromEncodable<Everything>(without).note, std::nullopt);
  without["note"] = nullptr;
  EXPECT_EQ(FromEncodable<Everything>(without).note, std::nullopt);
}

TEST(ValueError, TellsThePlace) {
  EXPECT_EQ(ReadingError<Texts>(EncodableMap{{"texts", EncodableList{"a", 5}}}),
            "params.texts[1]: expected a text, got int32 5");
  EXPECT_EQ(ReadingError<zoo::Node>(EncodableMap{
                {"name", "a"},
                {"children",
                 EncodableList{EncodableMap{{"name", true}, {"children", EncodableList()}}}}}),
            "params.children[0].name: expected a text, got bool true");
  EXPECT_EQ((ReadingError<std::map<std::string, int>>(EncodableMap{{"k", "v"}})),
            "params[\"k\"]: expected int32, got text \"v\"");
}

TEST(ValueError, NamesAMissingMember) {
  EXPECT_EQ(ReadingError<Totals>(EncodableMap{{"each", EncodableList()}}), "params.total: missing");
}

TEST(ValueError, TellsWhatWasExpectedAndWhatCame) {
  EXPECT_EQ(ReadingError<Texts>(EncodableValue()), "params: expected a map, got null");
  EXPECT_EQ(ReadingError<std::int8_t>(std::int64_t{500}),
            "params: expected int8 (-128 to 127), got int64 500");
  EXPECT_EQ(ReadingError<std::uint64_t>(-1),
            "params: expected uint64 (0 to 9223372036854775807), got int32 -1");
  EXPECT_EQ(ReadingError<bool>(1.5), "params: expected a bool, got double 1.5");
  EXPECT_EQ(ReadingError<float>(1e300), "params: expected a float, got double 1e+300");
  EXPECT_EQ(ReadingError<Color>("kBlue"),
            "params: expected a Color (kRed, kGreen), got text \"kBlue\"");
  EXPECT_EQ(ReadingError<std::vector<std::int32_t>>(std::vector<double>{1.5}),
            "params[0]: expected int32, got double 1.5");
  EXPECT_EQ(ReadingError<std::vector<std::string>>(std::vector<std::int32_t>{1}),
            "params[0]: expected a text, got int32 1");
  EXPECT_EQ(ReadingError<std::vector<std::string>>("a"), "params: expected a list, got text \"a\"");
  EXPECT_EQ((ReadingError<std::map<std::string, int>>(EncodableMap{{1, 2}})),
            "params: expected a map with text keys, got int32 1");
  EXPECT_EQ(ReadingError<std::string>(std::vector<std::uint8_t>(3)),
            "params: expected a text, got bytes of 3");
}

TEST(ValueError, ShowsEveryKindOfValue) {
  const std::vector<std::pair<EncodableValue, std::string>> shown{
      {nullptr, "null"},
      {true, "bool true"},
      {false, "bool false"},
      {7, "int32 7"},
      {std::int64_t{7}, "int64 7"},
      {0.5, "double 0.5"},
      {EncodableList{1, 2}, "list of 2"},
      {EncodableMap{{1, 2}}, "map of 1"},
      {std::vector<std::uint8_t>(3), "bytes of 3"},
      {std::vector<std::int32_t>(4), "int32 list of 4"},
      {std::vector<std::int64_t>(5), "int64 list of 5"},
      {std::vector<double>(6), "double list of 6"},
      {std::vector<float>(7), "float list of 7"},
      {EncodableValue(cw::CustomEncodableValue(1)), "a custom value"}};
  for (const auto& [value, text] : shown) {
    EXPECT_EQ(ReadingError<std::string>(value), "params: expected a text, got " + text);
  }
}

TEST(ValueError, ShowsTheHeadOfALongText) {
  const std::string whole(40, 'x');
  EXPECT_EQ(ReadingError<bool>(whole), "params: expected a bool, got text \"" + whole + "\"");
  EXPECT_EQ(ReadingError<bool>(whole + "y"),
            "params: expected a bool, got text \"" + whole + "\"...");
}

TEST(ValueError, ClipsWhatCame) {
  const std::string error = ReadingError<bool>(std::string(1 << 20, 'x'));
  EXPECT_LT(error.size(), 200U);
  EXPECT_EQ(error.substr(error.size() - 5), "x\"...");
  EXPECT_EQ(ReadingError<bool>("short").back(), '"');
}

TEST(ValueError, RefusesWhatNoMessageHolds) {
  EXPECT_EQ(WritingError(std::numeric_limits<std::uint64_t>::max()),
            "params: 18446744073709551615 is above 9223372036854775807, the greatest integer of a "
            "message: send it as a text");
  EXPECT_EQ(WritingError(std::vector<std::uint64_t>{1, 1ULL << 63}).substr(0, 9), "params[1]");
  EXPECT_EQ(WritingError(Color::kUnnamed), "params: 2 is no value that TARV_ENUM(Color) names");
  EXPECT_EQ(WritingError(EncodableValue(EncodableList{cw::CustomEncodableValue(1)})),
            "params[0]: a custom value cannot travel in a message");
  EXPECT_EQ(
      WritingError(EncodableValue(EncodableMap{{EncodableList{cw::CustomEncodableValue(1)}, 5}})),
      "params[\"...\"][0]: a custom value cannot travel in a message");
}

TEST(ValueError, RefusesWhatNestsTooDeepForTheCodec) {
  zoo::Node node;
  EncodableValue any;
  for (int i = 0; i < 600; ++i) {
    zoo::Node outer;
    outer.children.push_back(std::move(node));
    node = std::move(outer);
    any = EncodableList{std::move(any)};
  }
  EXPECT_THAT(WritingError(node), testing::HasSubstr("nests deeper than a message may"));
  EXPECT_THAT(WritingError(any), testing::HasSubstr("nests deeper than a message may"));
}

EncodableValue Nest(int levels) {
  EncodableValue any;
  for (int i = 0; i < levels; ++i) {
    any = EncodableList{std::move(any)};
  }
  return any;
}

TEST(ValueError, RefusesOneLevelMoreThanAMessageMayHave) {
  EXPECT_EQ(WritingError(Nest(509)), "it fits");
  EXPECT_THAT(WritingError(Nest(510)), testing::HasSubstr("nests deeper than a message may (509"));
}

TEST(Value, MayHaveAnyNumberOfPartsSideBySide) {
  constexpr std::size_t kMany = 1000;  // more than there may be levels
  const std::vector<std::string> texts{"a"};
  EXPECT_EQ(WritingError(std::vector<std::vector<std::string>>(kMany, texts)), "it fits");
  EXPECT_EQ(WritingError(std::vector<std::map<std::string, bool>>(kMany, {{"a", true}})),
            "it fits");
  EXPECT_EQ(WritingError(std::vector<Texts>(kMany, {texts})), "it fits");
  EXPECT_EQ(WritingError(EncodableValue(EncodableList(kMany, EncodableList{1}))), "it fits");
}

TEST(Value, ReplacesWhatItsMembersHoldFromTheStart) {
  const auto read = FromEncodable<zoo::Furnished>(
      EncodableMap{{"counts", EncodableMap{{"b", 2}}}, {"texts", EncodableList()}});
  EXPECT_THAT(read.counts, ElementsAre(testing::Pair("b", 2)));
  EXPECT_TRUE(read.texts.empty());
}

TEST(Value, DeepestThatIsNotRefusedTravels) {
  const EncodableValue any = Nest(509);
  EXPECT_NO_THROW(EncodableValue(EncodableMap{{"e", EncodableMap{{"d", EncodableMap{{"v", any}}}}}})
                      .Serialize());
}

TEST(Shape, DescribesATypeForTools) {
  std::ostringstream text;
  text << tarv::ShapeOf<Totals>();
  EXPECT_EQ(text.str(),
            "{\"members\": [{\"name\": \"total\", \"shape\": \"int64\"}, {\"name\": \"each\", "
            "\"shape\": {\"list\": \"int32\"}}], \"struct\": \"Totals\"}");
  EXPECT_EQ(tarv::ShapeOf<std::optional<Color>>(),
            EncodableValue(EncodableMap{
                {"optional",
                 EncodableMap{{"enum", "Color"}, {"names", EncodableList{"kRed", "kGreen"}}}}}));
  EXPECT_EQ((tarv::ShapeOf<std::map<std::string, EncodableValue>>()),
            EncodableValue(EncodableMap{{"map", "any"}}));
}

TEST(Shape, EndsWhereAStructureHoldsItself) {
  const EncodableValue shape = tarv::ShapeOf<zoo::Node>();
  EXPECT_EQ(*shape.Find("members")->At(1)->Find("shape"),
            EncodableValue(EncodableMap{{"list", EncodableMap{{"struct", "Node"}}}}));
}

}  // namespace

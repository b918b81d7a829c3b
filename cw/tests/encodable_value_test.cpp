#include <cw/codec_limits.h>
#include <cw/encodable_value.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <limits>
#include <set>
#include <stdexcept>
#include <type_traits>

#include "support/bytes.h"
#include "support/stderr_capture.h"
#include "support/valueless.h"

namespace cw {
namespace {

using test_support::Bytes;
using test_support::FromHex;
using test_support::StderrCapture;
using test_support::ToBytes;

template <class T>
constexpr std::size_t kIndexOf = std::size_t(-1);
template <>
constexpr std::size_t kIndexOf<std::int32_t> = 2;
template <>
constexpr std::size_t kIndexOf<std::int64_t> = 3;

TEST(EncodableValue, HoldsItsAlternativesAtFixedPositions) {
  EXPECT_EQ(EncodableValue().index(), 0U);
  EXPECT_EQ(EncodableValue(true).index(), 1U);
  EXPECT_EQ(EncodableValue(1).index(), 2U);
  EXPECT_EQ(EncodableValue(std::int64_t{1}).index(), 3U);
  EXPECT_EQ(EncodableValue(1.0).index(), 4U);
  EXPECT_EQ(EncodableValue("x").index(), 5U);
  EXPECT_EQ(EncodableValue(std::vector<std::uint8_t>()).index(), 6U);
  EXPECT_EQ(EncodableValue(std::vector<std::int32_t>()).index(), 7U);
  EXPECT_EQ(EncodableValue(std::vector<std::int64_t>()).index(), 8U);
  EXPECT_EQ(EncodableValue(std::vector<double>()).index(), 9U);
  EXPECT_EQ(EncodableValue(EncodableList()).index(), 10U);
  EXPECT_EQ(EncodableValue(EncodableMap()).index(), 11U);
  EXPECT_EQ(EncodableValue(CustomEncodableValue(1)).index(), 12U);
  EXPECT_EQ(EncodableValue(std::vector<float>()).index(), 13U);
  EXPECT_EQ(std::variant_size_v<internal::EncodableVariant>, 14U);
}

TEST(EncodableValue, IsNullByDefaultAndFromNullptr) {
  EXPECT_TRUE(EncodableValue().IsNull());
  EXPECT_TRUE(EncodableValue(nullptr).IsNull());
  EXPECT_FALSE(EncodableValue(0).IsNull());
}

TEST(EncodableValue, TakesTextsAsStringsNeverAsBools) {
  const char* pointer = "pointer";
  char array[] = "array";
  EXPECT_EQ(std::get<std::string>(EncodableValue("literal")), "literal");
  EXPECT_EQ(std::get<std::string>(EncodableValue(pointer)), "pointer");
  EXPECT_EQ(std::get<std::string>(EncodableValue(array)), "array");
  EXPECT_EQ(std::get<std::string>(EncodableValue(std::string_view("view"))), "view");
  EXPECT_EQ(std::get<std::string>(EncodableValue(std::string("string"))), "string");
  EncodableValue assigned;
  assigned = "assigned";
  EXPECT_EQ(assigned, "assigned");
}

TEST(EncodableValue, RefusesANullText) {
  const char* none = nullptr;
  EXPECT_THROW(EncodableValue{none}, std::logic_error);
}

TEST(EncodableValue, TakesEachIntegerTypeInTheKindThatHoldsIt) {
  EXPECT_EQ(EncodableValue(short{1}).index(), kIndexOf<std::int32_t>);
  EXPECT_EQ(EncodableValue(std::uint8_t{1}).index(), kIndexOf<std::int32_t>);
  EXPECT_EQ(EncodableValue(std::uint16_t{1}).index(), kIndexOf<std::int32_t>);
  EXPECT_EQ(EncodableValue(1).index(), kIndexOf<std::int32_t>);
  EXPECT_EQ(EncodableValue(1U).index(), kIndexOf<std::int64_t>);
  EXPECT_EQ(EncodableValue(1L).index(), kIndexOf<std::int64_t>);
  EXPECT_EQ(EncodableValue(1LL).index(), kIndexOf<std::int64_t>);
  EXPECT_EQ(std::get<std::int64_t>(EncodableValue(UINT_MAX)), 4294967295);
  EXPECT_EQ(std::get<double>(EncodableValue(1.5F)), 1.5);
}

TEST(EncodableValue, TakesNothingThatWouldLoseItsValue) {
  static_assert(!std::is_constructible_v<EncodableValue, std::uint64_t>);
  static_assert(!std::is_constructible_v<EncodableValue, unsigned long long>);
  static_assert(!std::is_constructible_v<EncodableValue, long double>);
  static_assert(!std::is_constructible_v<EncodableValue, void*>);
  static_assert(!std::is_constructible_v<EncodableValue, const int*>);
  static_assert(std::is_nothrow_move_constructible_v<EncodableValue>);
  static_assert(std::is_nothrow_move_assignable_v<EncodableValue>);
}

TEST(EncodableValue, IsWrittenTheNaturalWay) {
  const EncodableMap map{{"id", 7}, {"name", "x"}, {"list", EncodableList{1, "two", 3.0, nullptr}}};
  EXPECT_EQ(map.at("id"), 7);
  EXPECT_EQ(map.at("name"), "x");
  EXPECT_EQ(map.at("list"), (EncodableList{1, "two", 3.0, EncodableValue()}));
  EXPECT_EQ((EncodableMap{{"a", "b"}}).size(), 1U);
}

TEST(EncodableValue, IteratesMapKeysByKindFirst) {
  const EncodableMap map{{1, 0}, {"a", 0}, {std::int64_t{1}, 0}};
  std::vector<EncodableValue> keys;
  for (const auto& entry : map) {
    keys.push_back(entry.first);
  }
  EXPECT_EQ(keys, (EncodableList{1, std::int64_t{1}, "a"}));
}

TEST(EncodableValue, OrdersTextsByTheirBytesAsUnsignedNumbers) {
  EXPECT_LT(EncodableValue("z"), EncodableValue("\xC3\xA9"));
  EXPECT_FALSE(EncodableValue("\xC3\xA9") < EncodableValue("z"));
  EXPECT_LT(EncodableValue("a"), EncodableValue("a\x80"));
  EXPECT_LT(EncodableValue("az"), EncodableValue("a\x80"));
  const EncodableMap map{{"\xC3\xA9", 3}, {"\x7F", 2}, {"a", 1}, {"", 0}};
  int position = 0;
  for (const auto& [key, value] : map) {
    EXPECT_EQ(value, position++) << key;
  }
}

TEST(EncodableValue, OrdersByKindAndThenByValue) {
  const EncodableList ascending{
      nullptr,
      false,
      true,
      -5,
      7,
      std::int64_t{-100},
      std::int64_t{3},
      -1e9,
      2.0,
      "a",
      "ab",
      "b",
      std::vector<std::uint8_t>{1},
      std::vector<std::uint8_t>{1, 0},
      std::vector<std::int32_t>{0},
      std::vector<std::int64_t>{0},
      std::vector<double>{0},
      EncodableValue(EncodableList{1}),
      EncodableValue(EncodableList{1, 1}),
      EncodableValue(EncodableMap{{1, 1}}),
      EncodableValue(EncodableMap{{1, 2}}),
      EncodableValue(CustomEncodableValue(0)),
      std::vector<float>{0},
  };
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    for (std::size_t j = 0; j < ascending.size(); ++j) {
      const EncodableValue& a = ascending[i];
      const EncodableValue& b = ascending[j];
      EXPECT_EQ(a < b, i < j) << a << " " << b;
      EXPECT_EQ(a > b, i > j) << a << " " << b;
      EXPECT_EQ(a <= b, i <= j) << a << " " << b;
      EXPECT_EQ(a >= b, i >= j) << a << " " << b;
      EXPECT_EQ(a == b, i == j) << a << " " << b;
      EXPECT_EQ(a != b, i != j) << a << " " << b;
    }
  }
}

TEST(EncodableValue, WithTheSameNumberInAnotherKindIsAnotherValue) {
  EXPECT_NE(EncodableValue(1), EncodableValue(std::int64_t{1}));
  EXPECT_NE(EncodableValue(1), EncodableValue(1.0));
  EXPECT_LT(EncodableValue(INT_MAX), EncodableValue(std::int64_t{INT64_MIN}));
}

TEST(EncodableValue, WidensIntegers) {
  EXPECT_EQ(EncodableValue(7).AsInt64(), 7);
  EXPECT_EQ(EncodableValue(-7).AsInt64(), -7);
  EXPECT_EQ(EncodableValue(std::int64_t{INT64_MAX}).AsInt64(), INT64_MAX);
  EXPECT_EQ(EncodableValue(7.0).AsInt64(), std::nullopt);
  EXPECT_EQ(EncodableValue("7").AsInt64(), std::nullopt);
}

TEST(EncodableValue, GivesDoublesAndTheIntegersThatADoubleHolds) {
  const std::int64_t exact = std::int64_t{1} << 53;
  EXPECT_EQ(EncodableValue(1.5).AsDouble(), 1.5);
  EXPECT_EQ(EncodableValue(2).AsDouble(), 2.0);
  EXPECT_EQ(EncodableValue(exact).AsDouble(), 9007199254740992.0);
  EXPECT_EQ(EncodableValue(-exact).AsDouble(), -9007199254740992.0);
  EXPECT_EQ(EncodableValue(exact + 1).AsDouble(), std::nullopt);
  EXPECT_EQ(EncodableValue(-exact - 1).AsDouble(), std::nullopt);
  EXPECT_EQ(EncodableValue(true).AsDouble(), std::nullopt);
}

TEST(EncodableValue, GivesBoolsOnlyFromBools) {
  EXPECT_EQ(EncodableValue(true).AsBool(), true);
  EXPECT_EQ(EncodableValue(false).AsBool(), false);
  EXPECT_EQ(EncodableValue(1).AsBool(), std::nullopt);
}

TEST(EncodableValue, LooksIntoNestedPayloadsSafely) {
  const EncodableValue value(EncodableMap{{"user", EncodableMap{{"name", "x"}, {"age", 7}}},
                                          {"tags", EncodableList{"a"}}});
  ASSERT_NE(value.Find("user"), nullptr);
  EXPECT_EQ(*value.Find("user")->Find<std::string>("name"), "x");
  EXPECT_EQ(*value.Find<EncodableMap>("user"), *value.Find("user")->AsMap());
  EXPECT_EQ(*value.Find("tags")->At(0)->AsString(), "a");
  EXPECT_EQ(value.Find("tags")->AsList()->size(), 1U);
  EXPECT_EQ(*Find(*value.AsMap(), "tags"), EncodableList{"a"});
}

TEST(EncodableValue, GivesNullForWhatIsNotThere) {
  const EncodableValue map(EncodableMap{{"a", 1}, {2, 3}});
  const EncodableValue list(EncodableList{1});
  EXPECT_EQ(map.Find("b"), nullptr);
  EXPECT_EQ(map.Find<std::string>("a"), nullptr);
  EXPECT_EQ(map.Find<std::string>("b"), nullptr);
  EXPECT_EQ(map.At(0), nullptr);
  EXPECT_EQ(list.Find("a"), nullptr);
  EXPECT_EQ(list.At(1), nullptr);
  EXPECT_EQ(map.AsString(), nullptr);
  EXPECT_EQ(map.AsList(), nullptr);
  EXPECT_EQ(list.AsMap(), nullptr);
}

TEST(CustomEncodableValue, EqualsOnlyTheOnesThatShareItsPayload) {
  const CustomEncodableValue first(std::string("same"));
  const CustomEncodableValue second(std::string("same"));
  const CustomEncodableValue copy = first;
  EXPECT_TRUE(first == copy);
  EXPECT_FALSE(first != copy);
  EXPECT_FALSE(first == second);
  EXPECT_TRUE(first != second);
  EXPECT_EQ(EncodableValue(first), EncodableValue(copy));
  EXPECT_NE(EncodableValue(first), EncodableValue(second));
}

TEST(CustomEncodableValue, HasOneOrderInWhichOnlySharersAreEquivalent) {
  const CustomEncodableValue first(1);
  const CustomEncodableValue second(1);
  const CustomEncodableValue copy = first;
  EXPECT_FALSE(first < copy || first > copy);
  EXPECT_TRUE(first <= copy && first >= copy);
  EXPECT_NE(first < second, second < first);
  EXPECT_EQ(first<second, second> first);
  EXPECT_EQ(first <= second, second >= first);
  EXPECT_EQ((std::set<EncodableValue>{EncodableValue(first), EncodableValue(second),
                                      EncodableValue(copy)})
                .size(),
            2U);
}

TEST(CustomEncodableValue, GivesItsPayloadByItsType) {
  const CustomEncodableValue custom(std::string("payload"));
  ASSERT_NE(custom.GetIf<std::string>(), nullptr);
  EXPECT_EQ(*custom.GetIf<std::string>(), "payload");
  EXPECT_EQ(custom.GetIf<int>(), nullptr);
  EXPECT_EQ(custom.GetPayload()->type(), typeid(std::string));
}

TEST(CustomEncodableValue, HasNoPayloadOnceItWasMovedAway) {
  CustomEncodableValue custom(1);
  const CustomEncodableValue target = std::move(custom);
  EXPECT_EQ(custom.GetPayload(), nullptr);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(custom.GetIf<int>(), nullptr);
  EXPECT_EQ(*target.GetIf<int>(), 1);
}

TEST(EncodableValueDeserialize, GivesNullForNoBytes) {
  const std::uint8_t byte = 1;
  QuarnBufferView* no_view = nullptr;
  const StderrCapture capture;
  EXPECT_TRUE(EncodableValue::Deserialize(nullptr, 5).IsNull());
  EXPECT_TRUE(EncodableValue::Deserialize(&byte, 0).IsNull());
  EXPECT_TRUE(EncodableValue::Deserialize(quarn::Buffer()).IsNull());
  EXPECT_TRUE(EncodableValue::Deserialize(no_view).IsNull());
  EXPECT_EQ(capture.GetText(), "");
}

TEST(EncodableValueDeserialize, ReadsTheNullValueThatSerializeWrites) {
  const quarn::Buffer buffer = EncodableValue().Serialize();
  EXPECT_EQ(ToBytes(buffer), FromHex("00"));
  EXPECT_TRUE(EncodableValue::Deserialize(buffer).IsNull());
}

TEST(EncodableValueDeserialize, ReadsAViewAsFarAsItsStatedSizeReaches) {
  quarn::Buffer buffer = EncodableValue("hi").Serialize();
  QuarnBufferView view{sizeof(QuarnBufferView), buffer.GetData(), buffer.GetSize()};
  EXPECT_EQ(EncodableValue::Deserialize(&view), "hi");
  view.struct_size = 24;
  EXPECT_EQ(EncodableValue::Deserialize(&view), "hi");
  for (const std::uint64_t too_short : {0U, 8U, 15U, 16U, 23U}) {
    view.struct_size = too_short;
    EXPECT_TRUE(EncodableValue::Deserialize(&view).IsNull()) << too_short;
  }
}

TEST(EncodableValueDeserialize, IgnoresWhatFollowsTheFirstValue) {
  const auto bytes = FromHex("03 01 00 00 00 FF FF");
  EXPECT_EQ(EncodableValue::Deserialize(bytes.data(), bytes.size()), 1);
}

TEST(EncodableValueDeserialize, RoundTripsEachAlternativeButTheCustomOne) {
  const EncodableList values{
      nullptr,
      true,
      1,
      std::int64_t{1},
      1.5,
      "text",
      std::vector<std::uint8_t>{1},
      std::vector<std::int32_t>{1},
      std::vector<std::int64_t>{1},
      std::vector<double>{1.5},
      EncodableValue(EncodableList{1}),
      EncodableValue(EncodableMap{{"a", 1}}),
      std::vector<float>{1.5F},
  };
  std::set<std::size_t> kinds;
  for (const EncodableValue& value : values) {
    const EncodableValue decoded = EncodableValue::Deserialize(value.Serialize());
    EXPECT_EQ(decoded, value);
    kinds.insert(decoded.index());
  }
  EXPECT_EQ(kinds.size(), 13U);
}

TEST(EncodableValueDeserialize, KeepsFloatListsFloatLists) {
  const EncodableValue value(std::vector<float>{0.1F});
  EXPECT_EQ(std::get<std::vector<float>>(EncodableValue::Deserialize(value.Serialize())),
            std::vector<float>{0.1F});
}

TEST(EncodableValueDeserialize, GivesNullOneLevelPastTheDeepest) {
  Bytes bytes;
  for (std::size_t i = 1; i < kMaxNesting; ++i) {
    bytes.insert(bytes.end(), {12, 1});
  }
  Bytes deepest = bytes;
  deepest.insert(deepest.end(), {12, 0});
  Bytes too_deep = bytes;
  too_deep.insert(too_deep.end(), {12, 1, 12, 0});
  EXPECT_FALSE(EncodableValue::Deserialize(deepest.data(), deepest.size()).IsNull());
  EXPECT_TRUE(EncodableValue::Deserialize(too_deep.data(), too_deep.size()).IsNull());
}

TEST(EncodableValueDeserialize, GivesNullForACountThatCannotBe) {
  const auto bytes = FromHex("0C FF FF FF FF FF");
  EXPECT_TRUE(EncodableValue::Deserialize(bytes.data(), bytes.size()).IsNull());
}

TEST(EncodableValueSerialize, WritesAValueWithoutAnAlternativeAsNull) {
  EXPECT_EQ(ToBytes(test_support::MakeValueless().Serialize()), FromHex("00"));
}

TEST(EncodableValueSerializeDeathTest, StopsTheProcessForACustomValue) {
  const EncodableValue value(EncodableList{CustomEncodableValue(1)});
  EXPECT_DEATH(value.Serialize(),
               "Assertion \"kIsStandardType\" failed: StandardCodecSerializer cannot write a "
               "CustomEncodableValue; derive a serializer");
}

// Two values whose innermost elements alone may differ, each level a list or a map's value.
EncodableValue Nested(int depth, int innermost) {
  EncodableValue value(innermost);
  for (int level = 0; level < depth; ++level) {
    value = level % 2 == 0 ? EncodableValue(EncodableList{std::move(value)})
                           : EncodableValue(EncodableMap{{"k", std::move(value)}});
  }
  return value;
}

// Looking twice at a level would take 2^500 steps here.
TEST(EncodableValueOrder, LooksOnceAtEachLevelOfEqualValues) {
  const EncodableValue a = Nested(500, 1);
  const EncodableValue b = Nested(500, 1);
  const EncodableValue larger = Nested(500, 2);
  EXPECT_FALSE(a < b);
  EXPECT_TRUE(a <= b);
  EXPECT_FALSE(a > b);
  EXPECT_TRUE(a >= b);
  EXPECT_TRUE(a < larger);
  EXPECT_TRUE(larger > a);
}

TEST(EncodableValueOrder, TakesDeeplyNestedEqualKeysOfAMessageInItsStride) {
  std::vector<std::uint8_t> bytes = {0x0D, 0x02};
  for (int key = 0; key < 2; ++key) {
    for (int level = 0; level < 400; ++level) {
      bytes.insert(bytes.end(), {0x0C, 0x01});
    }
    bytes.insert(bytes.end(), {0x00, 0x00});
  }
  const auto value = EncodableValue::Deserialize(bytes.data(), bytes.size());
  ASSERT_NE(value.AsMap(), nullptr);
  EXPECT_EQ(value.AsMap()->size(), 1U);
}

TEST(EncodableValueOrder, OfListsAndMapsIsThatOfTheStandardContainers) {
  const std::vector<EncodableValue> ascending = {
      EncodableList{},        EncodableList{1},       EncodableList{1, 1},
      EncodableList{1, "a"},  EncodableList{2},       EncodableList(1, EncodableList{}),
      EncodableMap{},         EncodableMap{{"a", 1}}, EncodableMap{{"a", 1}, {"b", 0}},
      EncodableMap{{"a", 2}}, EncodableMap{{"b", 0}},
  };
  for (std::size_t i = 0; i < ascending.size(); ++i) {
    for (std::size_t j = 0; j < ascending.size(); ++j) {
      EXPECT_EQ(ascending[i] < ascending[j], i < j) << ascending[i] << " and " << ascending[j];
      EXPECT_EQ(ascending[i] <= ascending[j], i <= j) << ascending[i] << " and " << ascending[j];
    }
  }
}

// Such a copy has a way of its own.
TEST(EncodableValue, CopyOfManyBytesIsAsGoodAsAnyOther) {
  std::vector<std::uint8_t> bytes(std::size_t{5} << 20);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 31 >> 3);
  }
  EncodableValue original(bytes);
  const EncodableValue copy(original);
  const EncodableList list = {original, 1};
  std::get<std::vector<std::uint8_t>>(original)[7] ^= 1U;
  EXPECT_TRUE(copy == EncodableValue(bytes));
  EXPECT_TRUE(list[0] == copy);
  EXPECT_FALSE(original == copy);
}

}  // namespace
}  // namespace cw

// Values to JSON and back, under the rules of what changes its kind.
#include <gtest/gtest.h>
#include <quarn/buffer.h>
#include <vorpc/qt/utils.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/capture.h"
#include "support/random_value.h"

namespace vorpc::qt {
namespace {

using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;
using cw::test_support::RandomValues;
using cw::test_support::TestSeed;

constexpr double kTwoTo63 = 9223372036854775808.0;

// What a value is after the way there and back; nothing when it cannot go. Written from the table
// of the manual, apart from the code under test.
std::optional<EncodableValue> Expected(const EncodableValue& value);

EncodableValue Shrunk(std::int64_t value) {
  const auto small = static_cast<std::int32_t>(value);
  return small == value ? EncodableValue(small) : EncodableValue(value);
}

std::optional<EncodableValue> ExpectedOf(double value) {
  if (!std::isfinite(value)) {
    return std::nullopt;
  }
  const bool integral = value == std::trunc(value) && value >= -kTwoTo63 && value < kTwoTo63;
  return integral ? Shrunk(static_cast<std::int64_t>(value)) : EncodableValue(value);
}

EncodableValue ExpectedOf(const std::string& text) {
  std::size_t used = 0;
  try {
    const bool plain = !text.empty() && (std::isdigit(static_cast<unsigned char>(text[0])) != 0 ||
                                         (text[0] == '-' && text.size() > 1 &&
                                          std::isdigit(static_cast<unsigned char>(text[1])) != 0));
    const std::int64_t number = plain ? std::stoll(text, &used) : 0;
    return plain && used == text.size() ? Shrunk(number) : EncodableValue(text);
  } catch (const std::out_of_range&) {
    return text;
  }
}

// The tightest kind for an array of these numbers, which all stay numbers in JSON.
EncodableValue ExpectedNumbers(const std::vector<double>& numbers) {
  std::vector<std::int32_t> small;
  std::vector<std::int64_t> wide;
  for (const double number : numbers) {
    const auto expected = *ExpectedOf(number);
    if (const auto* const integer = std::get_if<std::int32_t>(&expected)) {
      small.push_back(*integer);
    }
    if (const auto integer = expected.AsInt64()) {
      wide.push_back(*integer);
    }
  }
  if (small.size() == numbers.size()) {
    return small;
  }
  return wide.size() == numbers.size() ? EncodableValue(wide) : EncodableValue(numbers);
}

bool IsJsonNumber(const EncodableValue& value) {
  const auto integer = value.AsInt64();
  return integer ? std::abs(static_cast<long double>(*integer)) <= 9007199254740992.0L
                 : std::holds_alternative<double>(value);
}

double ToDouble(const EncodableValue& value) {
  const auto integer = value.AsInt64();
  return integer ? static_cast<double>(*integer) : std::get<double>(value);
}

std::optional<EncodableValue> ExpectedList(const EncodableList& list) {
  EncodableList expected;
  for (const EncodableValue& item : list) {
    auto converted = Expected(item);
    if (!converted) {
      return std::nullopt;
    }
    expected.push_back(std::move(*converted));
  }
  if (!std::all_of(list.begin(), list.end(), IsJsonNumber)) {
    return expected;
  }
  std::vector<double> numbers;
  std::transform(list.begin(), list.end(), std::back_inserter(numbers), ToDouble);
  return ExpectedNumbers(numbers);
}

std::optional<EncodableValue> ExpectedMap(const EncodableMap& map) {
  EncodableMap expected;
  for (const auto& [key, value] : map) {
    auto converted = Expected(value);
    if (!converted || key.AsString() == nullptr) {
      return std::nullopt;
    }
    expected.emplace(key, std::move(*converted));
  }
  return expected;
}

// An array of numbers as the general list that has the same items.
template <class Item, class Number>
std::optional<EncodableValue> ExpectedTyped(const std::vector<Number>& numbers) {
  EncodableList list;
  for (const Number number : numbers) {
    list.emplace_back(static_cast<Item>(number));
  }
  return ExpectedList(list);
}

std::optional<EncodableValue> Expected(const EncodableValue& value) {
  if (const auto integer = value.AsInt64()) {
    return Shrunk(*integer);
  }
  if (const auto* const number = std::get_if<double>(&value)) {
    return ExpectedOf(*number);
  }
  if (const auto* const text = value.AsString()) {
    return ExpectedOf(*text);
  }
  if (const auto* const bytes = std::get_if<std::vector<std::uint8_t>>(&value)) {
    return ExpectedOf(quarn::Buffer(*bytes).ToBase64());
  }
  if (const auto* const small = std::get_if<std::vector<std::int32_t>>(&value)) {
    return ExpectedTyped<std::int64_t>(*small);
  }
  if (const auto* const wide = std::get_if<std::vector<std::int64_t>>(&value)) {
    return ExpectedTyped<std::int64_t>(*wide);
  }
  if (const auto* const doubles = std::get_if<std::vector<double>>(&value)) {
    return ExpectedTyped<double>(*doubles);
  }
  if (const auto* const floats = std::get_if<std::vector<float>>(&value)) {
    return ExpectedTyped<double>(*floats);
  }
  if (const auto* const list = value.AsList()) {
    return ExpectedList(*list);
  }
  return value.AsMap() != nullptr ? ExpectedMap(*value.AsMap()) : value;
}

TEST(JsonProperty, ValuesComeBackAsTheTableOfKindsSays) {
  const std::uint64_t seed = TestSeed(5150);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomValues values(seed, {4, 6, 12, true});
  int converted = 0;
  for (int i = 0; i < 3000; ++i) {
    const EncodableValue value = values.Next();
    const auto expected = Expected(value);
    QJsonValue json;
    EncodableValue back;
    bool there = false;
    bool again = false;
    tarv::test::StdoutOf([&] {
      there = EncodableToJson(value, json);
      again = JsonToEncodable(json, back);
    });
    ASSERT_EQ(there, expected.has_value()) << value;
    ASSERT_EQ(again, there) << value;
    ASSERT_EQ(back, expected.value_or(EncodableValue())) << value;
    converted += there ? 1 : 0;
  }
  EXPECT_GT(converted, 1000);
}

}  // namespace
}  // namespace vorpc::qt

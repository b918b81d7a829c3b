// Random values for property tests. The same seed gives the same values.
#ifndef CW_TESTS_SUPPORT_RANDOM_VALUE_H
#define CW_TESTS_SUPPORT_RANDOM_VALUE_H

#include <cw/encodable_value.h>

#include <array>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/seed.h"

namespace cw::test_support {

using tarv::test::TestSeed;

struct RandomValueOptions {
  int max_depth = 4;              // lists and maps inside each other
  std::size_t max_items = 6;      // in a list, map or typed list
  std::size_t max_text = 40;      // characters; one text in 50 is up to 400 times as long
  bool string_keys_only = false;  // as in JSON
};

// Makes every kind of value but custom ones: borders of each number kind often, valid UTF-8 texts,
// empty lists of every kind, never NaN (which equals nothing).
class RandomValues {
 public:
  explicit RandomValues(std::uint64_t seed, RandomValueOptions options = {})
      : random_(seed), options_(options) {}

  EncodableValue Next() { return Next(options_.max_depth); }

  EncodableMap NextMap() { return NextMap(options_.max_depth); }

  std::string NextText() {
    static const std::array<const char*, 8> kPieces = {
        "a", "Z", "0", " ", "\n\"\\", "\xC3\xA9", "\xE6\x97\xA5", "\xF0\x9F\x98\x80"};
    std::string text;
    std::size_t count = Below(options_.max_text + 1);
    count *= Below(50) == 0 ? 400 : 1;
    for (std::size_t i = 0; i < count; ++i) {
      text += kPieces[Below(kPieces.size())];
    }
    return text;
  }

  // A number below `bound`.
  std::size_t Below(std::size_t bound) {
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random_);
  }

 private:
  EncodableValue Next(int depth) {
    switch (Below(depth > 0 ? 13 : 11)) {
      case 0:
        return {};
      case 1:
        return EncodableValue(Below(2) == 0);
      case 2:
        return EncodableValue(NextInteger<std::int32_t>());
      case 3:
        return EncodableValue(NextInteger<std::int64_t>());
      case 4:
        return EncodableValue(NextDouble());
      case 5:
        return EncodableValue(NextText());
      default:
        return NextComposite(depth);
    }
  }

  EncodableValue NextComposite(int depth) {
    switch (Below(depth > 0 ? 7 : 5)) {
      case 0:
        return EncodableValue(
            NextTypedList<std::uint8_t>([this] { return static_cast<std::uint8_t>(Below(256)); }));
      case 1:
        return EncodableValue(
            NextTypedList<std::int32_t>([this] { return NextInteger<std::int32_t>(); }));
      case 2:
        return EncodableValue(
            NextTypedList<std::int64_t>([this] { return NextInteger<std::int64_t>(); }));
      case 3:
        return EncodableValue(NextTypedList<double>([this] { return NextDouble(); }));
      case 4:
        return EncodableValue(NextTypedList<float>(
            [this] { return static_cast<float>(NextInteger<std::int32_t>()) / 8; }));
      case 5:
        return EncodableValue(NextList(depth));
      default:
        return EncodableValue(NextMap(depth));
    }
  }

  template <class T>
  T NextInteger() {
    constexpr T kMin = std::numeric_limits<T>::min();
    constexpr T kMax = std::numeric_limits<T>::max();
    const std::array<T, 6> borders = {kMin, static_cast<T>(kMin + 1), -1, 0, 1, kMax};
    return Below(2) == 0 ? borders[Below(borders.size())]
                         : std::uniform_int_distribution<T>(kMin, kMax)(random_);
  }

  double NextDouble() {
    using Limits = std::numeric_limits<double>;
    static const std::array<double, 8> kBorders = {
        0.0, -0.0, 0.1, -1.0, Limits::max(), Limits::denorm_min(), Limits::infinity(), 9.1e15};
    return Below(2) == 0 ? kBorders[Below(kBorders.size())]
                         : std::uniform_real_distribution<double>(-1e9, 1e9)(random_);
  }

  template <class T, class Make>
  std::vector<T> NextTypedList(const Make& make) {
    std::vector<T> list(Below(options_.max_items + 1));
    for (T& item : list) {
      item = make();
    }
    return list;
  }

  EncodableList NextList(int depth) {
    EncodableList list(Below(options_.max_items + 1));
    for (EncodableValue& item : list) {
      item = Next(depth - 1);
    }
    return list;
  }

  EncodableMap NextMap(int depth) {
    EncodableMap map;
    const std::size_t count = Below(options_.max_items + 1);
    for (std::size_t i = 0; i < count; ++i) {
      EncodableValue key = options_.string_keys_only ? EncodableValue(NextText()) : Next(depth - 1);
      map.emplace(std::move(key), Next(depth - 1));
    }
    return map;
  }

  std::mt19937_64 random_;
  RandomValueOptions options_;
};

}  // namespace cw::test_support

#endif  // CW_TESTS_SUPPORT_RANDOM_VALUE_H

#include "golden.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <utility>

#include "support/stderr_capture.h"

namespace cw::test_support {
namespace {

TEST(GoldenBytes, HoldAtLeastSixtyPairsWithNamesOfTheirOwn) {
  std::set<std::string> names;
  for (const Golden& golden : Goldens()) {
    EXPECT_TRUE(names.insert(golden.name).second) << golden.name;
  }
  EXPECT_GE(names.size(), 60U);
}

TEST(GoldenBytes, CoverEveryTypeByteThatIsWritten) {
  std::set<int> types;
  for (const Golden& golden : Goldens()) {
    types.insert(golden.bytes.front());
  }
  EXPECT_EQ(types, (std::set<int>{0, 1, 2, 3, 4, 6, 7, 8, 9, 10, 11, 12, 13, 14}));
}

TEST(GoldenBytes, AreWhatEachValueEncodesTo) {
  for (const Golden& golden : Goldens()) {
    EXPECT_EQ(ToBytes(golden.value.Serialize()), golden.bytes) << golden.name;
  }
}

TEST(GoldenBytes, DecodeToTheirValueWithoutComplaint) {
  const StderrCapture capture;
  for (const Golden& golden : Goldens()) {
    const auto decoded = EncodableValue::Deserialize(golden.bytes.data(), golden.bytes.size());
    EXPECT_EQ(decoded, golden.value) << golden.name;
    EXPECT_EQ(decoded.index(), golden.value.index()) << golden.name;
  }
  EXPECT_EQ(capture.GetText(), "");
}

// A pair whose bytes are made by a rule, because they are too many to write down.
void ExpectBytesBothWays(const EncodableValue& value, const Bytes& bytes) {
  EXPECT_TRUE(ToBytes(value.Serialize()) == bytes);
  EXPECT_TRUE(EncodableValue::Deserialize(bytes.data(), bytes.size()) == value);
}

// Where sizes begin to take five bytes, and the last place before.
const std::map<std::uint32_t, const char*> kSizesAtTheBorder = {{65535, "FE FF FF"},
                                                                {65536, "FF 00 00 01 00"}};

TEST(GoldenBytes, OfListsWhereTheirSizesTakeMoreBytes) {
  for (const auto& [count, size] : kSizesAtTheBorder) {
    SCOPED_TRACE(count);
    ExpectBytesBothWays(EncodableList(count, EncodableValue(true)),
                        FromHex("0C " + std::string(size) + " 01*" + std::to_string(count)));
  }
}

TEST(GoldenBytes, OfMapsWhereTheirSizesTakeMoreBytes) {
  for (const auto& [count, size] : kSizesAtTheBorder) {
    SCOPED_TRACE(count);
    EncodableMap map;
    Bytes bytes = FromHex("0D " + std::string(size));
    for (std::uint32_t key = 0; key < count; ++key) {
      map.emplace(static_cast<std::int32_t>(key), nullptr);
      const auto low = static_cast<std::uint8_t>(key & 0xFF);
      const auto high = static_cast<std::uint8_t>(key >> 8);
      bytes.insert(bytes.end(), {3, low, high, 0, 0, 0});  // an integer, and its null
    }
    ExpectBytesBothWays(EncodableValue(std::move(map)), bytes);
  }
}

}  // namespace
}  // namespace cw::test_support

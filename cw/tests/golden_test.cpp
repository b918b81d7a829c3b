#include "golden.h"

#include <gtest/gtest.h>

#include <set>

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

}  // namespace
}  // namespace cw::test_support

#include <gtest/gtest.h>
#include <quarn/numbers.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <string>

#include "support/capture.h"
#include "support/log_line.h"
#include "support/seed.h"

namespace {

using quarn::numbers::SafeDoubleToInt64;
using tarv::test::IsLogLine;
using tarv::test::NewSeed;
using tarv::test::StdoutOf;
using tarv::test::TestSeed;

constexpr double kTwoTo63 = 9223372036854775808.0;

struct Outcome {
  bool converted = true;
  std::int64_t value = 77;
  std::string log;
};

Outcome Convert(double value) {
  Outcome outcome;
  outcome.log =
      StdoutOf([&outcome, value] { outcome.converted = SafeDoubleToInt64(value, outcome.value); });
  return outcome;
}

void ExpectConverts(double value, std::int64_t expected) {
  const Outcome outcome = Convert(value);
  EXPECT_TRUE(outcome.converted) << value;
  EXPECT_EQ(outcome.value, expected) << value;
  EXPECT_EQ(outcome.log, "") << value;
}

void ExpectFailsSilently(double value) {
  const Outcome outcome = Convert(value);
  EXPECT_FALSE(outcome.converted) << value;
  EXPECT_EQ(outcome.value, 0) << value;
  EXPECT_EQ(outcome.log, "") << value;
}

void ExpectFailsWith(double value, const std::string& message) {
  const Outcome outcome = Convert(value);
  EXPECT_FALSE(outcome.converted) << value;
  EXPECT_EQ(outcome.value, 0) << value;
  EXPECT_THAT(outcome.log, IsLogLine("error", message)) << value;
}

TEST(SafeDoubleToInt64, ConvertsIntegralValues) {
  ExpectConverts(0.0, 0);
  ExpectConverts(1.0, 1);
  ExpectConverts(-1.0, -1);
  ExpectConverts(2.0, 2);
  ExpectConverts(4503599627370497.0, 4503599627370497);    // 2^52 + 1: no fraction bits are left
  ExpectConverts(9007199254740993.0, 9007199254740992);    // 2^53 + 1 is no double
  ExpectConverts(-9007199254740991.0, -9007199254740991);  // -(2^53 - 1)
}

TEST(SafeDoubleToInt64, TakesNegativeZeroForZero) { ExpectConverts(-0.0, 0); }

TEST(SafeDoubleToInt64, ConvertsEveryPowerOfTwoThatFits) {
  for (int exponent = 0; exponent < 63; ++exponent) {
    ExpectConverts(std::ldexp(1.0, exponent), std::int64_t{1} << exponent);
    ExpectConverts(-std::ldexp(1.0, exponent), -(std::int64_t{1} << exponent));
  }
}

TEST(SafeDoubleToInt64, FailsSilentlyForTheSmallestFractionBitOfEveryMagnitude) {
  for (int exponent = 0; exponent < 52; ++exponent) {
    const double integral = std::ldexp(1.0, exponent);
    ExpectFailsSilently(std::nextafter(integral, 2 * integral));
    ExpectFailsSilently(-std::nextafter(integral, 2 * integral));
  }
}

TEST(SafeDoubleToInt64, FailsSilentlyForAHalf) {
  ExpectFailsSilently(0.5);
  ExpectFailsSilently(-0.5);
  ExpectFailsSilently(1.5);
  ExpectFailsSilently(4503599627370495.5);  // just below 2^52, the last halves
}

TEST(SafeDoubleToInt64, FailsSilentlyBelowOne) {
  ExpectFailsSilently(std::nextafter(1.0, 0.0));
  ExpectFailsSilently(std::numeric_limits<double>::min());
  ExpectFailsSilently(std::numeric_limits<double>::denorm_min());
  ExpectFailsSilently(-std::numeric_limits<double>::denorm_min());
}

TEST(SafeDoubleToInt64, ReportsNaN) {
  const std::string message = "Conversion failed: value is NaN";
  ExpectFailsWith(std::numeric_limits<double>::quiet_NaN(), message);
  ExpectFailsWith(-std::numeric_limits<double>::quiet_NaN(), message);
  ExpectFailsWith(std::numeric_limits<double>::signaling_NaN(), message);
}

TEST(SafeDoubleToInt64, ReportsInfinities) {
  const std::string message = "Conversion failed: value is infinite";
  ExpectFailsWith(std::numeric_limits<double>::infinity(), message);
  ExpectFailsWith(-std::numeric_limits<double>::infinity(), message);
}

TEST(SafeDoubleToInt64, ReportsValuesOutOfRange) {
  const std::string message = "Conversion failed: double value is out of int64_t range";
  ExpectFailsWith(-9223372036854777856.0, message);
  ExpectFailsWith(std::nextafter(kTwoTo63, 2 * kTwoTo63), message);
  ExpectFailsWith(std::numeric_limits<double>::max(), message);
  ExpectFailsWith(std::numeric_limits<double>::lowest(), message);
}

TEST(SafeDoubleToInt64, ReportsTwoTo63WithItsOwnMessage) {
  ExpectFailsWith(kTwoTo63, "Conversion failed: value reaches or exceeds 2^63");
}

TEST(SafeDoubleToInt64, ConvertsTheLowestInteger) {
  ExpectConverts(-kTwoTo63, std::numeric_limits<std::int64_t>::min());
}

TEST(SafeDoubleToInt64, ConvertsTheLargestDoubleBelowTwoTo63) {
  ExpectConverts(std::nextafter(kTwoTo63, 0.0), 9223372036854774784);
}

TEST(SafeDoubleToInt64, AgreesWithTheIntegerForEveryRandomIntegerThatADoubleHolds) {
  const std::uint64_t seed = TestSeed(NewSeed());
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  std::mt19937_64 random(seed);
  std::uniform_int_distribution<std::int64_t> integers(-(std::int64_t{1} << 53),
                                                       std::int64_t{1} << 53);
  for (int i = 0; i < 10000; ++i) {
    const std::int64_t integer = integers(random);
    std::int64_t converted = 0;
    ASSERT_TRUE(SafeDoubleToInt64(static_cast<double>(integer), converted)) << integer;
    ASSERT_EQ(converted, integer);
  }
}

}  // namespace

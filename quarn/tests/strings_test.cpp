#include <gtest/gtest.h>
#include <quarn/strings.h>

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <string_view>

#include "support/capture.h"
#include "support/log_line.h"
#include "support/seed.h"

namespace {

using quarn::strings::ParseInt;
using tarv::test::IsLogLine;
using tarv::test::NewSeed;
using tarv::test::StdoutOf;
using tarv::test::TestSeed;

template <class Int = std::int64_t>
void ExpectParses(std::string_view text, Int expected) {
  Int value = 77;
  bool parsed = false;
  const std::string log = StdoutOf([&] { parsed = ParseInt(text, value); });
  EXPECT_TRUE(parsed) << text;
  EXPECT_EQ(value, expected) << text;
  EXPECT_EQ(log, "") << text;
}

template <class Int = std::int64_t>
void ExpectFailsWith(std::string_view text, const std::string& message) {
  Int value = 77;
  bool parsed = true;
  const std::string log = StdoutOf([&] { parsed = ParseInt(text, value); });
  EXPECT_FALSE(parsed) << text;
  EXPECT_EQ(value, 0) << text;
  EXPECT_THAT(log, IsLogLine("warn", message)) << text;
}

template <class Int = std::int64_t>
void ExpectFails(std::string_view text) {
  ExpectFailsWith<Int>(text,
                       "Could not convert string \"" + std::string(text) + "\" to integer value.");
}

TEST(ParseInt, ReadsDecimalNumbers) {
  ExpectParses("0", 0);
  ExpectParses("7", 7);
  ExpectParses("1234567890", 1234567890);
  ExpectParses("-42", -42);
}

TEST(ParseInt, LetsNoControlCharacterOut) {
  ExpectFailsWith("1\n[fatal] a", "Could not convert string \"1\\n[fatal] a\" to integer value.");
}

TEST(ParseInt, AllowsLeadingZerosAndNegativeZero) {
  ExpectParses("007", 7);
  ExpectParses("-0", 0);
  ExpectParses("0000000000000000000000000000000000000001", 1);
}

TEST(ParseInt, ReadsTheWholeRange) {
  ExpectParses("9223372036854775807", std::numeric_limits<std::int64_t>::max());
  ExpectParses("-9223372036854775808", std::numeric_limits<std::int64_t>::min());
}

TEST(ParseInt, ReportsAnEmptyText) {
  ExpectFailsWith("", "Could not convert empty string to uint.");
  ExpectFailsWith(std::string_view(), "Could not convert empty string to uint.");
}

TEST(ParseInt, RejectsALoneSign) {
  ExpectFails("-");
  ExpectFails("+");
}

TEST(ParseInt, RejectsTrailingCharacters) {
  ExpectFails("12a");
  ExpectFails("12 ");
  ExpectFailsWith("12\n", "Could not convert string \"12\\n\" to integer value.");
  ExpectFails("1.0");
  ExpectFails("1e3");
  ExpectFailsWith(std::string_view("12\0", 3),
                  "Could not convert string \"12\\x00\" to integer value.");
}

TEST(ParseInt, RejectsPlusBlanksAndPrefixes) {
  ExpectFails("+5");
  ExpectFails(" 5");
  ExpectFails("0x10");
  ExpectFails("--5");
  ExpectFails("- 5");
}

TEST(ParseInt, RejectsNumbersOneBeyondTheRange) {
  ExpectFails("9223372036854775808");
  ExpectFails("-9223372036854775809");
}

TEST(ParseInt, RejectsNumbersThatOverflowSixtyFourBitsAnywhere) {
  ExpectFails("18446744073709551615");  // the last one that fits without a sign
  ExpectFails("18446744073709551616");  // overflows in the addition
  ExpectFails("-18446744073709551616");
  ExpectFails("20000000000000000000");  // overflows in the multiplication
  ExpectFails("184467440737095516170");
  ExpectFails(std::string(1000, '9'));
}

TEST(ParseInt, RejectsEverySingleCharacterThatIsNoDigit) {
  for (int c = 0; c < 256; ++c) {
    if (c < '0' || c > '9') {
      const std::string text{'1', static_cast<char>(c), '2'};
      std::int64_t value = 77;
      bool parsed = true;
      StdoutOf([&] { parsed = ParseInt(text, value); });
      EXPECT_FALSE(parsed) << "character " << c;
      EXPECT_EQ(value, 0) << "character " << c;
    }
  }
}

TEST(ParseInt, KeepsToTheRangeOfNarrowerTypes) {
  ExpectParses<std::int8_t>("127", 127);
  ExpectParses<std::int8_t>("-128", -128);
  ExpectFails<std::int8_t>("128");
  ExpectFails<std::int8_t>("-129");
  ExpectParses<std::int32_t>("-2147483648", std::numeric_limits<std::int32_t>::min());
  ExpectFails<std::int32_t>("2147483648");
}

TEST(ParseInt, ReadsBackWhatAnyIntegerPrints) {
  const std::uint64_t seed = TestSeed(NewSeed());
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int i = 0; i < 10000; ++i) {
    const auto integer = static_cast<std::int64_t>(random()) >> (random() % 64);
    std::int64_t parsed = 0;
    ASSERT_TRUE(ParseInt(std::to_string(integer), parsed)) << integer;
    ASSERT_EQ(parsed, integer);
  }
}

}  // namespace

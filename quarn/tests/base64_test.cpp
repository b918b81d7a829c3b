// The fast coder against the one that goes by the definition, and the lengths that no buffer has.
#include "../src/base64.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support/capture.h"
#include "support/log_line.h"
#include "support/seed.h"

namespace {

namespace base64 = quarn::base64;
using tarv::test::IsLogLine;
using tarv::test::NewSeed;
using tarv::test::StdoutOf;
using tarv::test::TestSeed;

using Bytes = std::vector<std::uint8_t>;
using Encoder = void (*)(const std::uint8_t*, std::size_t, char*);
using Decoder = bool (*)(const char*, std::size_t, std::uint8_t*);

std::string EncodeWith(Encoder encode, const Bytes& bytes) {
  // A vector of the exact length, so that tools see any step past its end.
  std::vector<char> text(base64::EncodedLength(bytes.size()).value());
  encode(bytes.data(), bytes.size(), text.data());
  return {text.begin(), text.end()};
}

std::optional<Bytes> DecodeWith(Decoder decode, const std::string& text) {
  const std::vector<char> exact(text.begin(), text.end());
  const auto size = base64::DecodedSize(exact.data(), exact.size());
  if (!size) {
    return std::nullopt;
  }
  Bytes bytes(*size);
  if (!decode(exact.data(), exact.size(), bytes.data())) {
    return std::nullopt;
  }
  return bytes;
}

void ExpectSameBothWays(const Bytes& bytes) {
  const std::string text = EncodeWith(&base64::Encode, bytes);
  ASSERT_EQ(text, EncodeWith(&base64::reference::Encode, bytes));
  if (!bytes.empty()) {
    ASSERT_EQ(DecodeWith(&base64::Decode, text), bytes);
    ASSERT_EQ(DecodeWith(&base64::reference::Decode, text), bytes);
  }
}

void ExpectSameVerdict(const std::string& text) {
  ASSERT_EQ(DecodeWith(&base64::Decode, text), DecodeWith(&base64::reference::Decode, text))
      << text;
}

bool IsInAlphabet(int c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/';
}

Bytes RandomBytes(std::mt19937_64& random, std::size_t size) {
  Bytes bytes(size);
  for (auto& byte : bytes) {
    byte = static_cast<std::uint8_t>(random());
  }
  return bytes;
}

// Other data each time; the seed is in the message of a failure.
class Base64Property : public testing::Test {
 protected:
  const std::uint64_t seed_ = TestSeed(NewSeed());
  const testing::ScopedTrace trace_{__FILE__, __LINE__, "TARV_TEST_SEED=" + std::to_string(seed_)};
  std::mt19937_64 random_{seed_};
};

TEST(Base64, EncodesTheTestVectorsOfTheStandard) {
  const std::array<std::string, 7> plain{"", "f", "fo", "foo", "foob", "fooba", "foobar"};
  const std::array<std::string, 7> encoded{"",         "Zg==",     "Zm8=",    "Zm9v",
                                           "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
  for (std::size_t i = 0; i < plain.size(); ++i) {
    const Bytes bytes(plain[i].begin(), plain[i].end());
    EXPECT_EQ(base64::EncodeToText(bytes.data(), bytes.size()), encoded[i]);
    EXPECT_EQ(EncodeWith(&base64::reference::Encode, bytes), encoded[i]);
  }
}

TEST(Base64, AgreesWithTheReferenceForEveryByteValueInEveryPlace) {
  for (std::size_t size = 1; size <= 7; ++size) {
    for (std::size_t place = 0; place < size; ++place) {
      for (unsigned value = 0; value < 256; ++value) {
        Bytes bytes(size, 0x5A);
        bytes[place] = static_cast<std::uint8_t>(value);
        ExpectSameBothWays(bytes);
      }
    }
  }
}

TEST_F(Base64Property, AgreesWithTheReferenceForEveryLengthUpTo200) {
  for (std::size_t size = 0; size <= 200; ++size) {
    for (int i = 0; i < 5; ++i) {
      ExpectSameBothWays(RandomBytes(random_, size));
    }
  }
}

TEST(Base64, RejectsEverySingleForeignCharacterInEveryPlace) {
  const std::string text = EncodeWith(&base64::Encode, Bytes(24, 0xA7));
  for (std::size_t place = 0; place < text.size(); ++place) {
    for (int c = 0; c < 256; ++c) {
      std::string changed = text;
      changed[place] = static_cast<char>(c);
      ExpectSameVerdict(changed);
      if (!IsInAlphabet(c)) {
        ASSERT_EQ(DecodeWith(&base64::Decode, changed), std::nullopt) << changed;
      }
    }
  }
}

TEST(Base64, AgreesWithTheReferenceForEveryCharacterInEveryPlaceOfAPaddedText) {
  for (const std::string text : {"QUJDQQ==", "QUJDQUI=", "QQ==", "QUI="}) {
    for (std::size_t place = 0; place < text.size(); ++place) {
      for (int c = 0; c < 256; ++c) {
        std::string changed = text;
        changed[place] = static_cast<char>(c);
        ExpectSameVerdict(changed);
      }
    }
  }
}

TEST(Base64, AcceptsExactlyTheSixteenthOfTheTextsWithDoublePaddingThatIsCanonical) {
  int accepted = 0;
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string text{static_cast<char>(first), static_cast<char>(second), '=', '='};
      const auto bytes = DecodeWith(&base64::Decode, text);
      if (bytes) {
        ++accepted;
        ASSERT_EQ(EncodeWith(&base64::Encode, *bytes), text);
      }
    }
  }
  EXPECT_EQ(accepted, 256);
}

TEST_F(Base64Property, AcceptsARandomTextOnlyIfItIsWhatItsBytesEncodeTo) {
  const std::string characters = "ABCQRghwxyz0189+/=";
  for (int i = 0; i < 100000; ++i) {
    std::string text(4 * (1 + random_() % 3), ' ');
    for (auto& c : text) {
      c = characters[random_() % characters.size()];
    }
    ExpectSameVerdict(text);
    const auto bytes = DecodeWith(&base64::Decode, text);
    if (bytes) {
      ASSERT_EQ(EncodeWith(&base64::Encode, *bytes), text);
    }
  }
}

TEST_F(Base64Property, AgreesWithTheReferenceOnTextsWithAFlippedBit) {
  for (int i = 0; i < 2000; ++i) {
    std::string text = EncodeWith(&base64::Encode, RandomBytes(random_, 1 + random_() % 100));
    char& c = text[random_() % text.size()];
    c = static_cast<char>(c ^ (1 << random_() % 8));
    ExpectSameVerdict(text);
  }
}

TEST(Base64DecodedSize, NeedsAMultipleOfFourCharacters) {
  const std::string text(16, 'A');
  for (std::size_t length = 0; length <= text.size(); ++length) {
    const bool possible = length >= 4 && length % 4 == 0;
    EXPECT_EQ(base64::DecodedSize(text.data(), length).has_value(), possible) << length;
  }
}

TEST(Base64DecodedSize, LeavesOutOneByteForEachPaddingCharacter) {
  EXPECT_EQ(base64::DecodedSize("QUJD", 4), 3U);
  EXPECT_EQ(base64::DecodedSize("QUI=", 4), 2U);
  EXPECT_EQ(base64::DecodedSize("QQ==", 4), 1U);
  EXPECT_EQ(base64::DecodedSize("====", 4), 1U);
  EXPECT_EQ(base64::DecodedSize("QUJDQQ==", 8), 4U);
}

TEST(Base64EncodedLength, IsFourCharactersForEachBegunGroupOfThreeBytes) {
  for (std::size_t size = 0; size <= 200; ++size) {
    EXPECT_EQ(base64::EncodedLength(size), (size + 2) / 3 * 4);
  }
}

// One byte more and the groups, rounded up, exceed what a text can address.
constexpr std::size_t kLargestSize = base64::kMaxGroups * 3;

TEST(Base64EncodedLength, EndsAtTheLargestNumberOfGroups) {
  EXPECT_EQ(base64::kMaxGroups, 0x0FFFFFFFFFFFFFFFU);
  EXPECT_EQ(base64::EncodedLength(kLargestSize), 0x3FFFFFFFFFFFFFFCU);
  EXPECT_EQ(base64::EncodedLength(kLargestSize - 2), 0x3FFFFFFFFFFFFFFCU);
  EXPECT_EQ(base64::EncodedLength(kLargestSize + 1), std::nullopt);
  EXPECT_EQ(base64::EncodedLength(std::numeric_limits<std::size_t>::max()), std::nullopt);
}

TEST(Base64EncodeToText, ReportsASizeThatNoTextCanHold) {
  for (const std::size_t size : {kLargestSize + 1, std::numeric_limits<std::size_t>::max()}) {
    std::string text = "something";
    const std::string log = StdoutOf([&text, size] { text = base64::EncodeToText(nullptr, size); });
    EXPECT_EQ(text, "");
    EXPECT_THAT(log, IsLogLine("error", "Buffer is too large to encode as Base64."));
  }
}

}  // namespace

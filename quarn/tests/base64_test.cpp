// Each coder against the one that goes by the definition, and the lengths that no buffer has.
#include <gtest/gtest.h>
#include <quarn/internal/base64.h>

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "../src/base64_coders.h"
#include "support/capture.h"
#include "support/log_line.h"
#include "support/seed.h"

namespace quarn::base64 {

// How a failure names the coder.
void PrintTo(const Coder& coder, std::ostream* stream) { *stream << coder.name; }

}  // namespace quarn::base64

namespace {

namespace base64 = quarn::base64;
using tarv::test::IsLogLine;
using tarv::test::NewSeed;
using tarv::test::StdoutOf;
using tarv::test::TestSeed;

using Bytes = std::vector<std::uint8_t>;

// Vectors of the exact length, so that tools see any step past their end.
std::vector<char> Exact(const std::string& text) { return {text.begin(), text.end()}; }

template <class Encoder>
std::string EncodeWith(const Encoder& encode, const Bytes& bytes) {
  std::vector<char> text(base64::EncodedLength(bytes.size()).value());
  encode(bytes.data(), bytes.size(), text.data());
  return {text.begin(), text.end()};
}

template <class Decoder>
std::optional<Bytes> DecodeWith(const Decoder& decode, const std::string& text) {
  const std::vector<char> exact = Exact(text);
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

std::string Encode(const Bytes& bytes) { return EncodeWith(&base64::Encode, bytes); }
std::optional<Bytes> Decode(const std::string& text) { return DecodeWith(&base64::Decode, text); }

std::string EncodeByDefinition(const Bytes& bytes) {
  return EncodeWith(&base64::reference::Encode, bytes);
}
std::optional<Bytes> DecodeByDefinition(const std::string& text) {
  return DecodeWith(&base64::reference::Decode, text);
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

// Each way that this build knows. Other data each time; the seed is in the message of a failure.
class Base64Coder : public testing::TestWithParam<base64::Coder> {
 protected:
  void SetUp() override {
    if (!GetParam().is_supported()) {
      GTEST_SKIP() << "this CPU has no " << GetParam().name;
    }
  }

  static std::string EncodeHere(const Bytes& bytes) {
    return EncodeWith([](const std::uint8_t* data, std::size_t size,
                         char* out) { base64::EncodeBy(GetParam(), data, size, out); },
                      bytes);
  }

  static std::optional<Bytes> DecodeHere(const std::string& text) {
    return DecodeWith(
        [](const char* characters, std::size_t length, std::uint8_t* out) {
          return base64::DecodeBy(GetParam(), characters, length, out);
        },
        text);
  }

  static void ExpectSameBothWays(const Bytes& bytes) {
    const std::string text = EncodeHere(bytes);
    ASSERT_EQ(text, EncodeByDefinition(bytes));
    if (!bytes.empty()) {
      ASSERT_EQ(DecodeHere(text), bytes);
      ASSERT_EQ(DecodeByDefinition(text), bytes);
    }
  }

  static void ExpectSameVerdict(const std::string& text) {
    ASSERT_EQ(DecodeHere(text), DecodeByDefinition(text)) << text;
  }

  const std::uint64_t seed_ = TestSeed(NewSeed());
  const testing::ScopedTrace trace_{__FILE__, __LINE__, "TARV_TEST_SEED=" + std::to_string(seed_)};
  std::mt19937_64 random_{seed_};
};

INSTANTIATE_TEST_SUITE_P(Each, Base64Coder, testing::ValuesIn(base64::GetCoders()),
                         [](const auto& coder) { return std::string(coder.param.name); });

// Longer than the largest block with what it needs behind it, and than two of the next.
constexpr std::size_t kSeveralBlocks = 100;

TEST(Base64Coders, EndWithTheTablesThatNeedNothingOfTheCpu) {
  EXPECT_STREQ(base64::GetCoders().back().name, "Tables");
  EXPECT_TRUE(base64::GetCoders().back().is_supported());
}

TEST_P(Base64Coder, DoesWholeBlocksByItself) {
  const Bytes bytes(kSeveralBlocks, 0x5A);
  const std::string text = Encode(bytes);
  std::vector<char> encoded(text.size());
  Bytes decoded(bytes.size());
  const bool tables = std::string(GetParam().name) == "Tables";
  EXPECT_EQ(GetParam().encode(bytes.data(), bytes.size(), encoded.data()) == 0, tables);
  EXPECT_EQ(GetParam().decode(text.data(), text.size() - 4, decoded.data()) == 0, tables);
}

TEST_P(Base64Coder, AgreesWithTheDefinitionForEveryByteValueInEveryPlace) {
  for (std::size_t place = 0; place < kSeveralBlocks; ++place) {
    for (unsigned value = 0; value < 256; ++value) {
      Bytes bytes(kSeveralBlocks, 0x5A);
      bytes[place] = static_cast<std::uint8_t>(value);
      ASSERT_EQ(EncodeHere(bytes), EncodeByDefinition(bytes)) << place << ' ' << value;
    }
  }
}

TEST_P(Base64Coder, AgreesWithTheDefinitionForEveryByteValueInEveryPlaceOfAShortText) {
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

TEST_P(Base64Coder, AgreesWithTheDefinitionForEveryLengthUpTo200) {
  for (std::size_t size = 0; size <= 200; ++size) {
    for (int i = 0; i < 5; ++i) {
      ExpectSameBothWays(RandomBytes(random_, size));
    }
  }
}

TEST_P(Base64Coder, AgreesWithTheDefinitionOnLongRandomData) {
  for (int i = 0; i < 20; ++i) {
    ExpectSameBothWays(RandomBytes(random_, random_() % 50000));
  }
}

TEST_P(Base64Coder, AgreesWithTheDefinitionForEveryCharacterInEveryPlace) {
  const std::string text = Encode(Bytes(kSeveralBlocks / 3 * 3, 0xA7));
  for (std::size_t place = 0; place < text.size(); ++place) {
    for (int c = 0; c < 256; ++c) {
      std::string changed = text;
      changed[place] = static_cast<char>(c);
      const auto decoded = DecodeHere(changed);
      ASSERT_EQ(decoded, DecodeByDefinition(changed)) << place << ' ' << c;
      const bool padding = c == '=' && place + 1 == text.size();
      ASSERT_EQ(decoded.has_value(), IsInAlphabet(c) && !padding) << place << ' ' << c;
    }
  }
}

TEST_P(Base64Coder, AgreesWithTheDefinitionForEveryCharacterInEveryPlaceOfAPaddedText) {
  const std::string block(64, 'A');
  for (const std::string text : {"QUJDQQ==", "QUJDQUI=", "QQ==", "QUI="}) {
    for (const std::string& whole : {text, block + text}) {
      for (std::size_t place = whole.size() - text.size(); place < whole.size(); ++place) {
        for (int c = 0; c < 256; ++c) {
          std::string changed = whole;
          changed[place] = static_cast<char>(c);
          ExpectSameVerdict(changed);
        }
      }
    }
  }
}

TEST_P(Base64Coder, AgreesWithTheDefinitionOnTextsWithAFlippedBit) {
  for (int i = 0; i < 2000; ++i) {
    std::string text = Encode(RandomBytes(random_, 1 + random_() % 200));
    char& c = text[random_() % text.size()];
    c = static_cast<char>(c ^ (1 << random_() % 8));
    ExpectSameVerdict(text);
  }
}

TEST_P(Base64Coder, AcceptsARandomTextOnlyIfItIsWhatItsBytesEncodeTo) {
  const std::string characters = "ABCQRghwxyz0189+/=";
  for (int i = 0; i < 30000; ++i) {
    std::string text(4 * (1 + random_() % 3), ' ');
    for (auto& c : text) {
      c = characters[random_() % characters.size()];
    }
    ExpectSameVerdict(text);
    const auto bytes = DecodeHere(text);
    if (bytes) {
      ASSERT_EQ(EncodeHere(*bytes), text);
    }
  }
}

TEST(Base64, EncodesTheTestVectorsOfTheStandard) {
  const std::array<std::string, 7> plain{"", "f", "fo", "foo", "foob", "fooba", "foobar"};
  const std::array<std::string, 7> encoded{"",         "Zg==",     "Zm8=",    "Zm9v",
                                           "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
  for (std::size_t i = 0; i < plain.size(); ++i) {
    const Bytes bytes(plain[i].begin(), plain[i].end());
    EXPECT_EQ(base64::EncodeToText(bytes.data(), bytes.size()), encoded[i]);
    EXPECT_EQ(EncodeByDefinition(bytes), encoded[i]);
  }
}

// Around the lengths at which the text and the bytes are made in several pieces.
TEST(Base64, MakesTextsAndBytesOfAnyLengthInPieces) {
  std::mt19937_64 random(1);
  for (const std::size_t pieces : {1U, 2U, 3U}) {
    for (std::size_t size = pieces * 3072 - 4; size <= pieces * 3072 + 4; ++size) {
      const Bytes bytes = RandomBytes(random, size);
      const std::string text = base64::EncodeToText(bytes.data(), bytes.size());
      ASSERT_EQ(text, EncodeByDefinition(bytes)) << size;
      ASSERT_EQ(base64::DecodeToBytes(text.data(), text.size()), bytes) << size;
    }
  }
}

TEST(Base64, RejectsAForeignCharacterInEachPieceOfALongText) {
  const std::string text(3 * 4096, 'A');
  for (std::size_t place = 5; place < text.size(); place += 1024) {
    std::string changed = text;
    changed[place] = '=';
    EXPECT_EQ(base64::DecodeToBytes(changed.data(), changed.size()), std::nullopt) << place;
  }
}

// What pieces would accept, one by one, and the whole may not.
TEST(Base64, RejectsPaddingAtTheEndOfAPiece) {
  std::string text(2 * 4096, 'A');
  text[4095] = '=';
  EXPECT_EQ(base64::DecodeToBytes(text.data(), text.size()), std::nullopt);
}

TEST(Base64, AcceptsExactlyTheSixteenthOfTheTextsWithDoublePaddingThatIsCanonical) {
  int accepted = 0;
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string text{static_cast<char>(first), static_cast<char>(second), '=', '='};
      const auto bytes = Decode(text);
      if (bytes) {
        ++accepted;
        ASSERT_EQ(Encode(*bytes), text);
      }
    }
  }
  EXPECT_EQ(accepted, 256);
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

// Base64 piece by piece, beside the whole at once.
#include <gtest/gtest.h>
#include <quarn/internal/base64.h>
#include <quarn/internal/base64_pieces.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "support/seed.h"

namespace quarn {
namespace {

using tarv::test::TestSeed;
using Bytes = std::vector<std::uint8_t>;

// Around the borders of what is done at a time, in every phase of a group.
const std::vector<std::size_t> kSizes = {
    0,    1,    2,    3,    4,    5,    511,  512,  513,  514,  3069, 3070, 3071, 3072,  3073,
    3074, 3075, 6143, 6144, 6145, 6146, 6147, 6148, 9215, 9216, 9217, 9218, 9219, 100000};

Bytes MakeBytes(std::size_t size) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 131 + (i >> 8));
  }
  return bytes;
}

std::string TextOf(const Bytes& bytes) { return base64::EncodeToText(bytes.data(), bytes.size()); }

TEST(Base64Encoder, GivesTheTextOfTheWholeForTwoPiecesOfAnySize) {
  for (const std::size_t front : kSizes) {
    for (const std::size_t size : kSizes) {
      const Bytes bytes = MakeBytes(front + size);
      Base64Encoder encoder;
      encoder.Write(bytes.data(), front);
      EXPECT_EQ(encoder.GetSize(), front);
      encoder.Write(bytes.data() + front, size);
      EXPECT_EQ(encoder.GetSize(), bytes.size());
      ASSERT_EQ(encoder.Finish(), TextOf(bytes)) << front << " and " << size;
    }
  }
}

TEST(Base64Encoder, GivesTheTextOfTheWholeForSmallPiecesBesideLargeOnes) {
  std::mt19937_64 random(TestSeed(64));
  for (int round = 0; round < 300; ++round) {
    const Bytes bytes = MakeBytes(random() % 20000);
    Base64Encoder encoder;
    encoder.Expect(random() % 20000);
    for (std::size_t done = 0; done < bytes.size();) {
      const std::size_t longest = random() % 2 == 0 ? Base64Encoder::kLongestPiece : 8000;
      const std::size_t count = std::min(random() % longest + 1, bytes.size() - done);
      if (count <= Base64Encoder::kLongestPiece) {
        std::copy_n(bytes.data() + done, count, encoder.Gather(count));
      } else {
        encoder.Write(bytes.data() + done, count);
      }
      done += count;
    }
    ASSERT_EQ(encoder.Finish(), TextOf(bytes));
  }
}

TEST(Base64Encoder, TakesNoMoreMemoryThanWasExpected) {
  const Bytes bytes = MakeBytes(100000);
  Base64Encoder encoder;
  encoder.Expect(bytes.size());
  encoder.Write(bytes.data(), 10);
  encoder.Write(bytes.data() + 10, bytes.size() - 10);
  EXPECT_EQ(encoder.Finish().capacity(), TextOf(bytes).size());
}

TEST(Base64Decoder, GivesTheBytesOfTheWholeInPieces) {
  std::mt19937_64 random(TestSeed(65));
  for (int round = 0; round < 300; ++round) {
    const Bytes bytes = MakeBytes(random() % 3000 + 1);
    const std::string text = TextOf(bytes);
    Base64Decoder decoder(text);
    Bytes decoded(bytes.size());
    std::size_t done = 0;
    while (decoder.GetBytesLeft() != 0) {
      const std::size_t count = std::min<std::size_t>(random() % 300 * 3, decoder.GetBytesLeft());
      ASSERT_TRUE(decoder.Decode(decoded.data() + done, count));
      done += count;
      ASSERT_EQ(decoder.GetBytesLeft(), bytes.size() - done);
    }
    ASSERT_TRUE(decoder.Decode(nullptr, 0));
    ASSERT_EQ(decoded, bytes);
  }
}

TEST(Base64Decoder, RefusesThePieceWithAForeignCharacter) {
  const Bytes bytes = MakeBytes(61);
  const std::string text = TextOf(bytes);
  for (std::size_t place = 0; place < text.size(); ++place) {
    for (const char foreign : {'=', '-', ' ', '\n', '\0', '\xFF'}) {
      std::string damaged = text;
      damaged[place] = foreign;
      if (damaged == text) {
        continue;
      }
      Base64Decoder decoder(damaged);
      Bytes decoded(66);
      bool good = true;
      while (good && decoder.GetBytesLeft() != 0) {
        good = decoder.Decode(decoded.data(), std::min<std::size_t>(6, decoder.GetBytesLeft()));
      }
      ASSERT_FALSE(good) << place;
    }
  }
}

}  // namespace
}  // namespace quarn

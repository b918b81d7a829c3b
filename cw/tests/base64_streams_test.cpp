// The streams over a text, beside those over its bytes.
#include <cw/internal/base64_streams.h>
#include <cw/internal/map_entries.h>
#include <cw/standard_codec.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "golden.h"
#include "support/bytes.h"
#include "support/random_value.h"
#include "support/stderr_capture.h"

namespace cw {
namespace {

using test_support::Bytes;
using test_support::Golden;
using test_support::RandomValues;
using test_support::TestSeed;

std::string TextOf(const EncodableValue& value) {
  Base64StreamWriter stream;
  StandardCodecSerializer::GetInstance().WriteValue(value, &stream);
  return stream.GetEncoder().Finish();
}

// The value under "v" of the map that a text holds; none when the reader gives up.
std::optional<EncodableValue> ReadWanted(const std::string& text) {
  internal::WantedEntry wanted{"v", std::nullopt};
  try {
    Base64StreamReader stream(text);
    internal::ReadMapEntries(&wanted, 1, &stream);
    stream.CheckRest();
  } catch (const Base64StreamReader::GiveUp&) {
    return std::nullopt;
  }
  return std::move(wanted.value);
}

EncodableValue Wrap(EncodableValue value, const std::string& key_before = "a") {
  return EncodableMap{{key_before, 1}, {"v", std::move(value)}, {"w", "end"}};
}

void ExpectBothWays(const EncodableValue& value, const std::string& key_before = "a") {
  const EncodableValue map = Wrap(value, key_before);
  const std::string text = TextOf(map);
  ASSERT_EQ(text, map.Serialize().ToBase64());
  ASSERT_EQ(ReadWanted(text), value);
}

// Of payloads, around the borders of the blocks and of what is read at a time.
const std::vector<std::size_t> kSizes = {
    0,    1,    2,    3,    7,    252,  253,  254,  255,  256,  257,   511,   512,  513,
    3060, 3061, 3062, 3063, 3064, 3065, 3066, 3067, 3068, 3069, 3070,  3071,  3072, 3073,
    3074, 3075, 6140, 6141, 6142, 6143, 6144, 6145, 6146, 6147, 65534, 65535, 65536};

// Each key before the payload moves it on by a byte.
const std::vector<std::string> kPhases = {"a", "aa", "aaa"};

TEST(Base64Streams, CarryByteListsAndTextsOfAnySizeInAnyPhase) {
  for (const std::string& key : kPhases) {
    for (const std::size_t size : kSizes) {
      Bytes bytes(size);
      for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 131 + (i >> 8));
      }
      ExpectBothWays(EncodableValue(bytes), key);
      ExpectBothWays(EncodableValue(std::string(bytes.begin(), bytes.end())), key);
      ASSERT_FALSE(HasFailure()) << size << " bytes behind " << key;
    }
  }
}

TEST(Base64Streams, CarryTypedListsOfAnySizeInAnyPhase) {
  for (const std::string& key : kPhases) {
    for (const std::size_t size : kSizes) {
      const std::size_t count = size + 1;
      ExpectBothWays(EncodableValue(std::vector<double>(count, 0.1)), key);
      ExpectBothWays(EncodableValue(std::vector<std::int32_t>(count, -7)), key);
      ExpectBothWays(EncodableValue(std::vector<float>(count, 0.5F)), key);
      ASSERT_FALSE(HasFailure()) << size << " items behind " << key;
    }
  }
}

TEST(Base64Streams, CarryKeysOfAnyLength) {
  for (const std::size_t size : kSizes) {
    ExpectBothWays(5, std::string(size + 1, 'k'));
    ASSERT_FALSE(HasFailure()) << size;
  }
}

TEST(Base64Streams, CarryTheGoldenValues) {
  for (const Golden& golden : test_support::Goldens()) {
    EXPECT_EQ(TextOf(golden.value), quarn::Buffer(golden.bytes).ToBase64()) << golden.name;
    // An empty list of wider items loses its padding inside others, which is then missed.
    const test_support::StderrCapture silence;
    if (EncodableValue::Deserialize(Wrap(golden.value).Serialize()) == Wrap(golden.value)) {
      ExpectBothWays(golden.value);
    }
    ASSERT_FALSE(HasFailure()) << golden.name;
  }
}

TEST(Base64Streams, CarryRandomValues) {
  const std::uint64_t seed = TestSeed(4004);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomValues values(seed);
  for (int i = 0; i < 2000; ++i) {
    ExpectBothWays(values.Next());
    ASSERT_FALSE(HasFailure()) << "value number " << i;
  }
}

// Writers leave out the padding of an empty list, and readers skip it: at the end that is no fault.
TEST(Base64Streams, MayEndWithAnEmptyTypedListInAnyPhase) {
  for (std::size_t before = 1; before <= 16; ++before) {
    const EncodableValue map =
        EncodableMap{{"a", std::string(before, 'x')}, {"v", std::vector<double>()}};
    EXPECT_EQ(ReadWanted(TextOf(map)), EncodableValue(std::vector<double>())) << before;
  }
}

// Whatever is wrong, nothing is written about it: the one who reads once more writes it.
TEST(Base64StreamReader, GivesUpInSilenceOnATextThatIsCutShort) {
  const std::string text = TextOf(Wrap(EncodableList{1, "x", std::vector<double>{1, 2}}));
  const test_support::StderrCapture capture;
  for (std::size_t length = 4; length < text.size(); length += 4) {
    EXPECT_EQ(ReadWanted(text.substr(0, length)), std::nullopt) << length;
  }
  EXPECT_EQ(capture.GetText(), "");
}

void ExpectGivingUpOnAForeignCharacterAnywhere(const EncodableValue& payload) {
  std::string key = "a";
  while (TextOf(Wrap(payload, key)).back() == '=') {
    key += 'a';
  }
  const std::string text = TextOf(Wrap(payload, key)) + "AAAA";  // more behind the message
  ASSERT_EQ(ReadWanted(text), payload);
  const test_support::StderrCapture capture;
  for (std::size_t place = 0; place < text.size(); ++place) {
    std::string damaged = text;
    damaged[place] = '-';
    ASSERT_EQ(ReadWanted(damaged), std::nullopt) << place;
  }
  EXPECT_EQ(capture.GetText(), "");
}

TEST(Base64StreamReader, GivesUpInSilenceOnAForeignCharacterAnywhere) {
  ExpectGivingUpOnAForeignCharacterAnywhere(Bytes(9000, 7));
}

TEST(Base64StreamReader, GivesUpInSilenceOnAForeignCharacterAnywhereAmongNumbers) {
  ExpectGivingUpOnAForeignCharacterAnywhere(std::vector<std::int32_t>(2300, 7));
}

TEST(Base64StreamReader, GivesUpInSilenceOnAnUnknownType) {
  const test_support::StderrCapture capture;
  EXPECT_EQ(ReadWanted(quarn::Buffer(Bytes{0x0D, 1, 7, 1, 'v', 0x20}).ToBase64()), std::nullopt);
  EXPECT_EQ(ReadWanted(quarn::Buffer(Bytes{0x20, 1}).ToBase64()), std::nullopt);
  EXPECT_EQ(capture.GetText(), "");
}

TEST(Base64StreamReader, IsAReaderLikeAnyOther) {
  const std::string text = quarn::Buffer(Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9}).ToBase64();
  Base64StreamReader reader(text);
  Bytes out(2);
  EXPECT_EQ(reader.BytesLeft(), 9U);
  EXPECT_EQ(reader.ReadByte(), 1);
  reader.ReadBytes(out.data(), 2);
  EXPECT_EQ(out, (Bytes{2, 3}));
  reader.ReadAlignment(0);
  reader.ReadAlignment(8);
  EXPECT_EQ(reader.BytesLeft(), 1U);
  EXPECT_THROW(reader.ReadBytes(out.data(), 2), Base64StreamReader::GiveUp);
  EXPECT_EQ(reader.ReadByte(), 9);
  reader.ReadBytes(nullptr, 0);
  EXPECT_THROW(reader.ReadByte(), Base64StreamReader::GiveUp);
}

TEST(Base64StreamWriter, IsAWriterLikeAnyOther) {
  Base64StreamWriter writer;
  const Bytes bytes = {2, 3};
  writer.WriteByte(1);
  writer.WriteBytes(bytes.data(), bytes.size());
  writer.WriteBytes(nullptr, 0);
  writer.WriteAlignment(8);
  writer.WriteAlignment(0);
  writer.WriteByte(4);
  EXPECT_EQ(writer.GetEncoder().Finish(),
            quarn::Buffer(Bytes{1, 2, 3, 0, 0, 0, 0, 0, 4}).ToBase64());
}

}  // namespace
}  // namespace cw

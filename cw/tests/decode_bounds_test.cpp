// How much memory decoding takes, for damaged and hostile input: a program of its own, because it
// counts what operator new takes.
#include <cw/codec_limits.h>
#include <cw/encodable_value.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>

#include "golden.h"
#include "support/memory_usage.h"
#include "support/random_value.h"

namespace cw::test_support {
namespace {

using tarv::test::GetMemoryUsage;
using tarv::test::MemoryUsage;

// Sends standard error to nowhere while it lives: damaged input is reported line by line.
class SilentStderr {
 public:
  SilentStderr() : original_(dup(STDERR_FILENO)) {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO);
    close(nowhere);
  }
  ~SilentStderr() {
    dup2(original_, STDERR_FILENO);
    close(original_);
  }
  SilentStderr(const SilentStderr&) = delete;
  SilentStderr& operator=(const SilentStderr&) = delete;

 private:
  int original_;
};

struct Cost {
  EncodableValue value;
  std::size_t memory = 0;       // the most that was held at a time
  std::size_t allocations = 0;  // how often memory was taken
};

Cost Decode(const std::uint8_t* data, std::size_t size) {
  const MemoryUsage before = GetMemoryUsage();
  GetMemoryUsage().peak = GetMemoryUsage().held;
  Cost cost;
  cost.value = EncodableValue::Deserialize(data, size);
  cost.memory = GetMemoryUsage().peak - before.held;
  cost.allocations = GetMemoryUsage().allocations - before.allocations;
  return cost;
}

std::size_t MemoryBound(std::size_t size) {
  return size * (sizeof(EncodableValue) + kDecodeOverheadPerByte) + kDecodeFixedMemory;
}

// One allocation a byte, one for each made-up item, those for the lines about faults, and those
// around the whole.
std::size_t AllocationBound(std::size_t size) { return size + kMaxMadeUpItems + 300; }

// Decodes, and checks the bounds.
EncodableValue DecodeWithinBounds(const std::uint8_t* data, std::size_t size) {
  Cost cost = Decode(data, size);
  EXPECT_LE(cost.memory, MemoryBound(size));
  EXPECT_LE(cost.allocations, AllocationBound(size));
  return std::move(cost.value);
}

EncodableValue DecodeWithinBounds(const Bytes& bytes) {
  return DecodeWithinBounds(bytes.data(), bytes.size());
}

Bytes Repeat(const std::string& hex, std::size_t count) {
  const Bytes unit = FromHex(hex);
  Bytes bytes;
  for (std::size_t i = 0; i < count; ++i) {
    bytes.insert(bytes.end(), unit.begin(), unit.end());
  }
  return bytes;
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(DecodeBounds, TheCounterCounts) {
  const MemoryUsage before = GetMemoryUsage();
  { const std::vector<char> block(1000); }
  EXPECT_EQ(GetMemoryUsage().held, before.held);
  EXPECT_EQ(GetMemoryUsage().allocations, before.allocations + 1);
}

TEST(DecodeBounds, HoldForEachGoldenMessage) {
  for (const Golden& golden : Goldens()) {
    EXPECT_EQ(DecodeWithinBounds(golden.bytes), golden.value) << golden.name;
  }
}

TEST(DecodeBounds, HoldForEveryTruncationOfTheGoldenMessages) {
  const SilentStderr silence;
  for (const Golden& golden : Goldens()) {
    for (std::size_t size = 0; size < golden.bytes.size(); ++size) {
      DecodeWithinBounds(golden.bytes.data(), size);
    }
    ASSERT_FALSE(HasFailure()) << golden.name;
  }
}

TEST(DecodeBounds, HoldForEveryFlippedBitOfTheGoldenMessages) {
  const SilentStderr silence;
  for (const Golden& golden : Goldens()) {
    Bytes bytes = golden.bytes;
    for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
      const auto mask = static_cast<std::uint8_t>(1U << (bit % 8));
      bytes[bit / 8] ^= mask;
      DecodeWithinBounds(bytes);
      bytes[bit / 8] ^= mask;
    }
    ASSERT_FALSE(HasFailure()) << golden.name;
  }
}

TEST(DecodeBounds, HoldForRandomBytes) {
  const SilentStderr silence;
  const std::uint64_t seed = TestSeed(5);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int i = 0; i < 20000; ++i) {
    Bytes bytes(random() % 200);
    for (std::uint8_t& byte : bytes) {
      byte = static_cast<std::uint8_t>(random() % 3 == 0 ? random() : random() % 16);
    }
    DecodeWithinBounds(bytes);
    ASSERT_FALSE(HasFailure()) << "input number " << i;
  }
}

TEST(DecodeBounds, HoldForDamagedRandomMessages) {
  const SilentStderr silence;
  const std::uint64_t seed = TestSeed(6);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomValues values(seed);
  for (int i = 0; i < 5000; ++i) {
    Bytes bytes = ToBytes(EncodableValue(values.NextMap()).Serialize());
    for (int hit = 0; hit < 3; ++hit) {
      bytes[values.Below(bytes.size())] = static_cast<std::uint8_t>(values.Below(256));
    }
    DecodeWithinBounds(bytes);
    ASSERT_FALSE(HasFailure()) << "message number " << i;
  }
}

TEST(DecodeBounds, HoldForCountsThatCannotBe) {
  for (const char* type : {"05", "07", "08", "09", "0A", "0B", "0C", "0D", "0E"}) {
    const Bytes header = FromHex(std::string(type) + " FF FF FF FF FF");
    const Cost cost = Decode(header.data(), header.size());
    EXPECT_TRUE(cost.value.IsNull()) << type;
    EXPECT_LT(cost.memory, 4096U) << type << ": refused before memory is taken";
    EXPECT_TRUE(DecodeWithinBounds(header + Bytes(100000)).IsNull()) << type;
  }
}

TEST(DecodeBounds, HoldForNestedHeadersThatEachClaimTheRest) {
  const SilentStderr silence;
  for (const char* header :
       {"0C FE FF FF ", "0C FF 00 00 01 00 ", "0D FE FF 7F ", "0C FE 00 20 "}) {
    for (const std::size_t levels : {20U, 100U, 511U}) {
      EXPECT_TRUE(DecodeWithinBounds(Repeat(header, levels) + Bytes(60000)).IsNull());
      EXPECT_TRUE(DecodeWithinBounds(Repeat(header, levels)).IsNull());
    }
  }
}

TEST(DecodeBounds, HoldForHeadersSideBySideThatEachClaimTheRest) {
  const SilentStderr silence;
  for (const char* item :
       {"0C FE FF 7F", "07 FE FF 7F", "09 FE FF 7F", "0A FE FF 7F", "0D FE FF 3F"}) {
    const Bytes items = Repeat(item, 20000);
    EXPECT_TRUE(DecodeWithinBounds(FromHex("0C FE 20 4E") + items).IsNull()) << item;
  }
}

// Each block claims one byte more than there is, so nothing is read and the next one is met again.
TEST(DecodeBounds, HoldForBlocksThatAreNeverRead) {
  const SilentStderr silence;
  Bytes bytes = FromHex("0C FE 00 10");
  for (std::size_t i = 0; i < 4096; ++i) {
    const std::size_t rest = (4096 - i) * 5;
    bytes.insert(bytes.end(), {7, 254, static_cast<std::uint8_t>(rest & 0xFF),
                               static_cast<std::uint8_t>(rest >> 8), 0});
  }
  EXPECT_TRUE(DecodeWithinBounds(bytes).IsNull());
}

// The most memory that made-up items take: a block that is not there, in a list whose items are
// not there either.
TEST(DecodeBounds, HoldForAMadeUpBlockInsideAListOfMissingItems) {
  const SilentStderr silence;
  for (const char* block : {"05", "07", "08", "09", "0A", "0B", "0E"}) {
    // 32,768 items, all but the first missing, and 32,769 elements of the block.
    const Bytes most = FromHex("0C FE 00 80 " + std::string(block) + " FE 01 80");
    EXPECT_EQ(DecodeWithinBounds(most).AsList()->size(), 32768U) << block;
    const Bytes too_many = FromHex("0C FE 00 80 " + std::string(block) + " FE 02 80");
    EXPECT_TRUE(DecodeWithinBounds(too_many).IsNull()) << block;
  }
}

TEST(DecodeBounds, HoldForAListWhoseFirstElementTakesItsBytesAway) {
  const SilentStderr silence;
  // A million elements announced and there; the first is a string of nearly all of them.
  const Bytes bytes = FromHex("0C FF 40 42 0F 00 07 FF 00 42 0F 00") + Bytes(1000000);
  EXPECT_TRUE(DecodeWithinBounds(bytes).IsNull());
}

TEST(DecodeBounds, HoldForAsManyMadeUpItemsAsThereMayBe) {
  const SilentStderr silence;
  for (const char* type : {"07", "08", "09", "0A", "0B", "0C", "0D", "0E"}) {
    EXPECT_FALSE(DecodeWithinBounds(FromHex(std::string(type) + " FF 00 00 01 00")).IsNull());
  }
  // Made-up elements on top of elements that are there.
  const Bytes both = FromHex("0C FF 40 42 10 00") + Bytes(1065536 - 65536);
  EXPECT_EQ(DecodeWithinBounds(both).AsList()->size(), 1065536U);
}

TEST(DecodeBounds, HoldForTheDensestMessagesThereAre) {
  // Nulls; empty lists and maps; lists of one; maps of one; maps of two-byte entries.
  EXPECT_FALSE(DecodeWithinBounds(FromHex("0C FF 40 42 0F 00") + Bytes(1000000)).IsNull());
  for (const char* item : {"0C 00", "0D 00", "0C 01 00", "0D 01 00 00", "0D 03 00 00 01 00 02 00",
                           "07 00", "07 01 61", "08 01 00", "0E 01 00*5"}) {
    const Bytes items = Repeat(item, 100000);
    EXPECT_FALSE(DecodeWithinBounds(FromHex("0C FF A0 86 01 00") + items).IsNull()) << item;
  }
}

// An empty list that is not padded, and at the end more than there should be: taken for padded.
TEST(DecodeBounds, HoldForMessagesThatAreReadTwice) {
  const SilentStderr silence;
  const Bytes bytes = FromHex("0C FF 40 42 0F 00 01 0A 00") + Bytes(1000000 - 2 + 1);
  const Cost cost = Decode(bytes.data(), bytes.size());
  EXPECT_EQ(cost.value.AsList()->size(), 1000000U);
  EXPECT_LE(cost.memory, MemoryBound(bytes.size()));
  EXPECT_LE(cost.allocations, 2 * AllocationBound(bytes.size()));
  const Cost lists = Decode(bytes.data(), bytes.size() - 1000000);
  EXPECT_TRUE(lists.value.IsNull());
}

TEST(DecodeBounds, HoldForMapsInTheWorstOrder) {
  Bytes bytes = FromHex("0D FE 60 EA");
  for (std::uint32_t key = 60000; key > 0; --key) {
    bytes.insert(bytes.end(), {3, static_cast<std::uint8_t>(key & 0xFF),
                               static_cast<std::uint8_t>(key >> 8), 0, 0, 0});
  }
  EXPECT_EQ(DecodeWithinBounds(bytes).AsMap()->size(), 60000U);
}

TEST(DecodeBounds, HoldForTheDeepestNesting) {
  EXPECT_FALSE(DecodeWithinBounds(Repeat("0C 01", 512) + FromHex("00")).IsNull());
  EXPECT_TRUE(DecodeWithinBounds(Repeat("0C 01", 1000000)).IsNull());
  EXPECT_TRUE(DecodeWithinBounds(Repeat("0D 01", 1000000)).IsNull());
}

TEST(DecodeBounds, GiveNullWhenMemoryRunsOut) {
  const Bytes bytes = FromHex("07 FF 40 42 0F 00") + Bytes(1000000);
  GetMemoryUsage().limit = 500000;
  const EncodableValue value = EncodableValue::Deserialize(bytes.data(), bytes.size());
  GetMemoryUsage().limit = std::numeric_limits<std::size_t>::max();
  EXPECT_TRUE(value.IsNull());
}

}  // namespace
}  // namespace cw::test_support

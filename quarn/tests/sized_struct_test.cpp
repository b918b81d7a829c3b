#include <gtest/gtest.h>
#include <quarn/sized_struct.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>

namespace {

using quarn::FieldFits;
using quarn::OffsetOf;
using quarn::ReadField;
using quarn::StatedSize;
using quarn::StructFiller;

using Entry = std::uint64_t (*)();

// A table of the full size that is tried here: nine entries.
struct Table {
  std::uint64_t size;
  Entry entry1;
  Entry entry2;
  Entry entry3;
  Entry entry4;
  Entry entry5;
  Entry entry6;
  Entry entry7;
  Entry entry8;
  Entry entry9;
};

constexpr std::uint64_t kFullSize = 80;
static_assert(sizeof(Table) == kFullSize);

constexpr std::array kEntries = {&Table::entry1, &Table::entry2, &Table::entry3,
                                 &Table::entry4, &Table::entry5, &Table::entry6,
                                 &Table::entry7, &Table::entry8, &Table::entry9};

std::uint64_t SomeEntry() { return 1; }

// Memory of exactly so many bytes, so that tools see any step past its end.
class ExactMemory {
 public:
  explicit ExactMemory(std::size_t size, int byte)
      : size_(size), bytes_(std::make_unique<unsigned char[]>(size)) {
    std::memset(bytes_.get(), byte, size);
  }

  Table* AsTable() const { return reinterpret_cast<Table*>(bytes_.get()); }
  unsigned char operator[](std::size_t i) const { return bytes_[i]; }

  bool IsZeroFrom(std::size_t begin, std::size_t end) const {
    for (std::size_t i = begin; i < end; ++i) {
      if (bytes_[i] != 0) {
        return false;
      }
    }
    return true;
  }

  bool HoldsAnEntryAt(std::size_t offset) const {
    Entry entry = nullptr;
    std::memcpy(&entry, bytes_.get() + offset, sizeof(entry));
    return entry == &SomeEntry;
  }

  std::size_t GetSize() const { return size_; }

 private:
  std::size_t size_;
  std::unique_ptr<unsigned char[]> bytes_;
};

// A loader stands in another library: the compiler that looks into it sees writes past the smallest
// sizes, which never happen.
[[gnu::noinline]] void FillAll(Table* table, std::uint64_t size) {
  StructFiller<Table> filler(table, size);
  for (const auto entry : kEntries) {
    filler.Fill(entry, &SomeEntry);
  }
}

TEST(FieldFits, WantsTheWholeEightBytesInside) {
  for (std::uint64_t size = 0; size <= kFullSize; ++size) {
    for (std::size_t k = 0; k <= kEntries.size(); ++k) {
      EXPECT_EQ(FieldFits(size, 8 * k), size >= 8 * k + 8) << "size " << size << ", entry " << k;
    }
  }
}

TEST(FieldFits, HoldsForTheLargestSize) {
  EXPECT_TRUE(FieldFits(std::numeric_limits<std::uint64_t>::max(), 72));
}

TEST(OffsetOf, IsEightTimesTheNumberOfTheEntry) {
  for (std::size_t k = 0; k < kEntries.size(); ++k) {
    EXPECT_EQ(OffsetOf(kEntries[k]), 8 * (k + 1));
  }
  EXPECT_EQ(OffsetOf(&Table::size), 0U);
}

TEST(StatedSize, IsTheFirstEightBytes) {
  Table table{};
  table.size = 0x0102030405060708;
  EXPECT_EQ(StatedSize(&table), 0x0102030405060708U);
}

TEST(ReadField, ReadsExactlyTheEntriesThatTheStatedSizeCovers) {
  for (std::uint64_t size = 0; size <= kFullSize; ++size) {
    Table table{};
    FillAll(&table, kFullSize);
    table.size = size;
    for (std::size_t k = 0; k < kEntries.size(); ++k) {
      const Entry expected = size > 8 * (k + 1) + 7 ? &SomeEntry : nullptr;
      EXPECT_EQ(ReadField(&table, kEntries[k]), expected) << "size " << size << ", entry " << k + 1;
    }
  }
}

TEST(ReadField, StaysInsideAStructureThatEndsEarly) {
  for (std::uint64_t size = 8; size <= kFullSize; ++size) {
    const ExactMemory memory(size, 0xEE);
    std::memcpy(static_cast<void*>(memory.AsTable()), &size, sizeof(size));
    for (std::size_t k = 0; k < kEntries.size(); ++k) {
      const bool present = ReadField(memory.AsTable(), kEntries[k]) != nullptr;
      EXPECT_EQ(present, size > 8 * (k + 1) + 7) << "size " << size << ", entry " << k + 1;
    }
  }
}

TEST(ReadField, IsNullForANullStructure) {
  EXPECT_EQ(ReadField(static_cast<const Table*>(nullptr), &Table::entry1), nullptr);
  EXPECT_EQ(ReadField(static_cast<const Table*>(nullptr), &Table::size), 0U);
}

TEST(StructFiller, FillsWhatFitsAndWritesNothingPastTheEnd) {
  for (std::uint64_t size = 8; size <= kFullSize; ++size) {
    const ExactMemory memory(size, 0xEE);
    FillAll(memory.AsTable(), size);
    EXPECT_EQ(StatedSize(memory.AsTable()), size);
    const std::size_t covered = size / 8 * 8;
    for (std::size_t offset = 8; offset < covered; offset += 8) {
      EXPECT_TRUE(memory.HoldsAnEntryAt(offset)) << "size " << size << ", offset " << offset;
    }
    EXPECT_TRUE(memory.IsZeroFrom(covered, size)) << "size " << size;
  }
}

TEST(StructFiller, StoresASizeThatIsTooSmallToHoldItself) {
  for (std::uint64_t size = 0; size < 8; ++size) {
    const ExactMemory memory(kFullSize, 0xEE);
    FillAll(memory.AsTable(), size);
    EXPECT_EQ(StatedSize(memory.AsTable()), size);
    for (std::size_t i = 8; i < memory.GetSize(); ++i) {
      ASSERT_EQ(memory[i], 0xEE) << "size " << size << ", byte " << i;
    }
  }
}

TEST(StructFiller, ZeroesWhatNobodyFills) {
  const ExactMemory memory(kFullSize, 0xEE);
  StructFiller<Table>(memory.AsTable(), kFullSize).Fill(&Table::entry3, &SomeEntry);
  EXPECT_TRUE(memory.IsZeroFrom(8, 24));
  EXPECT_TRUE(memory.HoldsAnEntryAt(24));
  EXPECT_TRUE(memory.IsZeroFrom(32, kFullSize));
}

TEST(StructFiller, ZeroesTheUnknownTailOfAStructureOfANewerCaller) {
  const ExactMemory memory(kFullSize + 40, 0xEE);
  FillAll(memory.AsTable(), kFullSize + 40);
  EXPECT_EQ(StatedSize(memory.AsTable()), kFullSize + 40);
  EXPECT_TRUE(memory.HoldsAnEntryAt(72));
  EXPECT_TRUE(memory.IsZeroFrom(kFullSize, kFullSize + 40));
}

}  // namespace

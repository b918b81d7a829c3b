// The exported entry and the tables that it and the root table fill.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/tarv_capi.h>

#include <array>
#include <cstring>
#include <set>
#include <string>

#include "kit/service.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

constexpr unsigned char kUntouched = 0xA5;

// Memory for a table of any size, with a border that must stay untouched.
template <class Table>
class Memory {
 public:
  Memory() { bytes_.fill(kUntouched); }

  Table* GetTable() { return reinterpret_cast<Table*>(bytes_.data()); }

  std::uint64_t Word(std::size_t offset) const {
    std::uint64_t word = 0;
    std::memcpy(&word, bytes_.data() + offset, sizeof(word));
    return word;
  }

  bool IsZero(std::size_t begin, std::size_t end) const { return AreAll(begin, end, 0); }
  bool IsUntouchedFrom(std::size_t begin) const { return AreAll(begin, bytes_.size(), kUntouched); }

 private:
  bool AreAll(std::size_t begin, std::size_t end, unsigned char value) const {
    for (std::size_t i = begin; i < end; ++i) {
      if (bytes_[i] != value) {
        return false;
      }
    }
    return true;
  }

  alignas(8) std::array<unsigned char, 160> bytes_{};
};

// Loads a table of every size and looks at every byte.
template <class Table>
void ExpectFillingByTheSizeRule(QuarnResult (*load)(Table*, std::size_t)) {
  for (std::size_t size = 0; size <= sizeof(Table) + 40; ++size) {
    SCOPED_TRACE("size " + std::to_string(size));
    Memory<Table> memory;
    ASSERT_EQ(load(memory.GetTable(), size), QUARN_RESULT_SUCCESS);
    EXPECT_EQ(memory.Word(0), size);
    std::size_t entry = 8;
    for (; entry < sizeof(Table) && entry + 8 <= size; entry += 8) {
      EXPECT_NE(memory.Word(entry), 0U) << "entry at " << entry;
    }
    if (entry < size) {
      EXPECT_TRUE(memory.IsZero(entry, size));
    }
    EXPECT_TRUE(memory.IsUntouchedFrom(std::max<std::size_t>(size, 8)));
  }
}

template <class Table>
void ExpectRefusalOfNull(QuarnResult (*load)(Table*, std::size_t)) {
  const auto output =
      StdoutOf([load] { EXPECT_EQ(load(nullptr, sizeof(Table)), QUARN_RESULT_INVALID_ARGUMENT); });
  EXPECT_THAT(output, IsLogLine("error", "Null table specified."));
}

TEST(ProcTable, WithASizeOfEightOnlyTheSizeIsWritten) {
  Memory<TARVProcTable> memory;
  EXPECT_EQ(TARVProcTableLoad(memory.GetTable(), 8), QUARN_RESULT_SUCCESS);
  EXPECT_EQ(memory.Word(0), 8U);
  EXPECT_TRUE(memory.IsUntouchedFrom(8));
}

TEST(ProcTable, WithASizeOfTwentyInitializeIsFilledAndTheRestZeroed) {
  Memory<TARVProcTable> memory;
  EXPECT_EQ(TARVProcTableLoad(memory.GetTable(), 20), QUARN_RESULT_SUCCESS);
  EXPECT_NE(memory.Word(8), 0U);
  EXPECT_TRUE(memory.IsZero(16, 20));
  EXPECT_TRUE(memory.IsUntouchedFrom(20));
}

TEST(ProcTable, OfALargerStructureAllEightEntriesAreFilledAndTheRestZeroed) {
  Memory<TARVProcTable> memory;
  EXPECT_EQ(TARVProcTableLoad(memory.GetTable(), 100), QUARN_RESULT_SUCCESS);
  for (std::size_t entry = 8; entry <= 64; entry += 8) {
    EXPECT_NE(memory.Word(entry), 0U) << "entry at " << entry;
  }
  EXPECT_TRUE(memory.IsZero(72, 100));
}

TEST(ProcTable, StoresASizeThatIsTooSmallToHoldIt) {
  Memory<TARVProcTable> memory;
  EXPECT_EQ(TARVProcTableLoad(memory.GetTable(), 3), QUARN_RESULT_SUCCESS);
  EXPECT_EQ(memory.Word(0), 3U);
}

TEST(ProcTable, RootIsFilledAsFarAsAnySizeReaches) {
  ExpectFillingByTheSizeRule<TARVProcTable>(&TARVProcTableLoad);
}

TEST(ProcTable, ClientIsFilledAsFarAsAnySizeReaches) {
  ExpectFillingByTheSizeRule<TARVRpcClientProcTable>(Tables().root.RpcClientProcTableLoad);
}

TEST(ProcTable, ServerIsFilledAsFarAsAnySizeReaches) {
  ExpectFillingByTheSizeRule<TARVRpcServerProcTable>(Tables().root.RpcServerProcTableLoad);
}

TEST(ProcTable, IntentManagerIsFilledAsFarAsAnySizeReaches) {
  ExpectFillingByTheSizeRule<TARVIntentManagerProcTable>(Tables().root.IntentManagerProcTableLoad);
}

TEST(ProcTable, NullRootIsRefusedWithALine) {
  ExpectRefusalOfNull<TARVProcTable>(&TARVProcTableLoad);
}

TEST(ProcTable, NullClientTableIsRefusedWithALine) {
  ExpectRefusalOfNull<TARVRpcClientProcTable>(Tables().root.RpcClientProcTableLoad);
}

TEST(ProcTable, NullIntentManagerTableIsRefusedWithALine) {
  ExpectRefusalOfNull<TARVIntentManagerProcTable>(Tables().root.IntentManagerProcTableLoad);
}

TEST(ProcTable, NullServerTableIsRefusedWithALine) {
  ExpectRefusalOfNull<TARVRpcServerProcTable>(Tables().root.RpcServerProcTableLoad);
}

TEST(ProcTable, OfEachKindIsRefusedFromAPlaceOfItsOwn) {
  const TARVProcTable root = Tables().root;
  const std::set<std::string> lines = {
      StdoutOf([] { TARVProcTableLoad(nullptr, 72); }),
      StdoutOf([&root] { root.RpcClientProcTableLoad(nullptr, 40); }),
      StdoutOf([&root] { root.RpcServerProcTableLoad(nullptr, 32); }),
      StdoutOf([&root] { root.IntentManagerProcTableLoad(nullptr, 24); })};
  EXPECT_EQ(lines.size(), 4U);
}

}  // namespace
}  // namespace tarv::test

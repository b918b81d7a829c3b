#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quarn/object.h>
#include <quarn/resources_cache.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <ios>
#include <iostream>
#include <optional>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/capture.h"
#include "support/log_line.h"
#include "support/seed.h"

// Tells slots apart by their place in the cache, which nothing public shows. An explicit
// instantiation may name private members.
template <auto kLookup>
struct SlotAccess {
  friend const void* SlotOf(quarn::ResourcesCache& cache, std::uint64_t id) {
    return (cache.*kLookup)(id);
  }
};
template struct SlotAccess<&quarn::ResourcesCache::GetChunkUnsafe>;
const void* SlotOf(quarn::ResourcesCache& cache, std::uint64_t id);

namespace {

using quarn::Buffer;
using quarn::ResourcesCache;
using quarn::ResourcesCacheGuard;
using tarv::test::IsLogLine;
using tarv::test::NewSeed;
using tarv::test::StdoutOf;
using tarv::test::TestSeed;

std::string InvalidChunk(std::uint64_t id) {
  return "Invalid chunk ID <" + std::to_string(id) + ">";
}

// Runs `action` and expects that it complains about `id`.
template <class Action>
void ExpectInvalidChunk(std::uint64_t id, Action&& action) {
  EXPECT_THAT(StdoutOf(action), IsLogLine("error", InvalidChunk(id)));
}

std::uint64_t RemovedChunk(ResourcesCache& cache) {
  const std::uint64_t id = cache.CreateChunk();
  cache.RemoveChunk(id);
  return id;
}

Buffer SomeBuffer() { return Buffer(std::vector<std::uint8_t>{1, 2, 3}); }

TEST(ResourcesCache, NumbersChunksFromTheProcessCounter) {
  ResourcesCache cache;
  const std::uint64_t before = quarn::details::CounterClient::GenerateId();
  EXPECT_EQ(cache.CreateChunk(), before + 1);
  EXPECT_EQ(cache.CreateChunk(), before + 2);
  EXPECT_EQ(quarn::details::CounterClient::GenerateId(), before + 3);
}

TEST(ResourcesCache, ReusesAFreeSlotWithALargerId) {
  ResourcesCache cache;
  const std::uint64_t first = cache.CreateChunk();
  const void* const slot = SlotOf(cache, first);
  cache.RemoveChunk(first);
  const std::uint64_t second = cache.CreateChunk();
  EXPECT_GT(second, first);
  EXPECT_EQ(SlotOf(cache, second), slot);
}

TEST(ResourcesCache, ReusesTheLowestFreeSlotAndGrowsOnlyWhenThereIsNone) {
  ResourcesCache cache;
  std::vector<std::uint64_t> ids;
  std::vector<const void*> slots;
  for (int i = 0; i < 4; ++i) {
    ids.push_back(cache.CreateChunk());
    slots.push_back(SlotOf(cache, ids.back()));
  }
  cache.RemoveChunk(ids[2]);
  cache.RemoveChunk(ids[1]);
  EXPECT_EQ(SlotOf(cache, cache.CreateChunk()), slots[1]);
  EXPECT_EQ(SlotOf(cache, cache.CreateChunk()), slots[2]);
  EXPECT_THAT(slots, testing::Not(testing::Contains(SlotOf(cache, cache.CreateChunk()))));
}

// Opens and removes chunks at random. `slots` has the place of each slot, `ids` the id of its
// chunk.
TEST(ResourcesCache, TakesTheSlotsThatAScanFromTheFrontFinds) {
  ResourcesCache cache;
  std::vector<const void*> slots;
  std::vector<std::uint64_t> ids;
  const std::uint64_t seed = TestSeed(NewSeed());
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 2000; ++round) {
    const auto at = std::uniform_int_distribution<std::size_t>(0, ids.size())(random);
    if (at < ids.size() && ids[at] != 0 && round % 16 > 6) {
      cache.RemoveChunk(std::exchange(ids[at], 0));
      continue;
    }
    const std::uint64_t id = cache.CreateChunk();
    const auto free = std::find(ids.begin(), ids.end(), 0U) - ids.begin();
    if (static_cast<std::size_t>(free) == ids.size()) {
      ids.push_back(0);
      slots.push_back(SlotOf(cache, id));
    }
    ids[static_cast<std::size_t>(free)] = id;
    ASSERT_EQ(SlotOf(cache, id), slots[static_cast<std::size_t>(free)]);
  }
  EXPECT_GT(std::set<const void*>(slots.begin(), slots.end()).size(), 10U);
}

TEST(ResourcesCache, ForgetsTheOldIdOfAReusedSlot) {
  ResourcesCache cache;
  const std::uint64_t first = RemovedChunk(cache);
  const std::uint64_t second = cache.CreateChunk();
  ExpectInvalidChunk(first, [&cache, first] { cache.AppendStr(first, "text"); });
  EXPECT_STREQ(cache.AppendStr(second, "text"), "text");
}

TEST(ResourcesCache, KeepsOtherChunksWhenOneIsRemoved) {
  ResourcesCache cache;
  const std::uint64_t first = cache.CreateChunk();
  const std::uint64_t second = cache.CreateChunk();
  const std::uint64_t third = cache.CreateChunk();
  const char* const kept = cache.AppendStr(second, "a text too long to be stored in place");
  cache.RemoveChunk(first);
  cache.RemoveChunk(third);
  cache.CreateChunk();
  EXPECT_STREQ(kept, "a text too long to be stored in place");
}

TEST(ResourcesCache, StoresAZeroTerminatedCopyOfAText) {
  ResourcesCache cache;
  const std::uint64_t id = cache.CreateChunk();
  std::string text = "abcdef";
  const char* const stored = cache.AppendStr(id, std::string_view(text).substr(0, 3));
  text.assign("xyzxyz");
  EXPECT_STREQ(stored, "abc");
  EXPECT_NE(static_cast<const void*>(stored), static_cast<const void*>(text.data()));
}

TEST(ResourcesCache, StoresTextsWithZerosInside) {
  ResourcesCache cache;
  const std::string text("a\0b", 3);
  const char* const stored = cache.AppendStr(cache.CreateChunk(), text);
  EXPECT_EQ(std::string(stored, 4), std::string("a\0b\0", 4));
}

TEST(ResourcesCache, StoresTheEmptyText) {
  ResourcesCache cache;
  const std::uint64_t id = cache.CreateChunk();
  EXPECT_STREQ(cache.AppendStr(id, ""), "");
  EXPECT_STREQ(cache.AppendStr(id, std::string_view()), "");
}

TEST(ResourcesCache, StoresTwoTextsInOrder) {
  ResourcesCache cache;
  const auto [first, second] = cache.AppendStr(cache.CreateChunk(), "one", "two");
  EXPECT_STREQ(first, "one");
  EXPECT_STREQ(second, "two");
}

TEST(ResourcesCache, KeepsAddressesWhenManyMoreAreAppended) {
  ResourcesCache cache;
  const std::uint64_t id = cache.CreateChunk();
  std::vector<const char*> addresses;
  addresses.reserve(5000);
  for (int i = 0; i < 5000; ++i) {
    addresses.push_back(cache.AppendStr(id, std::to_string(i)));
  }
  for (int i = 0; i < 5000; ++i) {
    ASSERT_STREQ(addresses[static_cast<std::size_t>(i)], std::to_string(i).c_str());
  }
}

TEST(ResourcesCache, KeepsTextsWhenManyMoreChunksAreCreated) {
  ResourcesCache cache;
  const char* const text = cache.AppendStr(cache.CreateChunk(), "kept");
  for (int i = 0; i < 1000; ++i) {
    cache.CreateChunk();
  }
  EXPECT_STREQ(text, "kept");
}

TEST(ResourcesCache, ReportsATextForARemovedChunkAndReturnsAnEmptyOne) {
  ResourcesCache cache;
  const std::uint64_t id = RemovedChunk(cache);
  const char* text = nullptr;
  ExpectInvalidChunk(id, [&] { text = cache.AppendStr(id, "text"); });
  EXPECT_STREQ(text, "");
}

TEST(ResourcesCache, ReturnsTheSameStaticEmptyTextEachTime) {
  std::set<const char*> addresses;
  StdoutOf([&addresses] {
    ResourcesCache cache;
    const auto [first, second] = cache.AppendStr(5, "one", "two");
    addresses = {cache.AppendStr(0, "text"), first, second, ResourcesCache().AppendStr(0, "text")};
  });
  ASSERT_EQ(addresses.size(), 1U);
  EXPECT_STREQ(*addresses.begin(), "");
}

TEST(ResourcesCache, ReportsTwoTextsForARemovedChunkWithOneLine) {
  ResourcesCache cache;
  const std::uint64_t id = RemovedChunk(cache);
  std::pair<const char*, const char*> texts;
  ExpectInvalidChunk(id, [&] { texts = cache.AppendStr(id, "one", "two"); });
  EXPECT_STREQ(texts.first, "");
  EXPECT_STREQ(texts.second, "");
}

TEST(ResourcesCache, LooksForTheChunkBeforeItLooksAtANullText) {
  ResourcesCache cache;
  const std::uint64_t id = RemovedChunk(cache);
  const char* text = nullptr;
  ExpectInvalidChunk(id, [&] { text = cache.AppendStr(id, std::string_view(nullptr, 5)); });
  EXPECT_STREQ(text, "");
}

std::string ErrorOfANullText(ResourcesCache& cache, std::uint64_t id) {
  try {
    cache.AppendStr(id, std::string_view(nullptr, 5));
  } catch (const std::logic_error& error) {
    return error.what();
  }
  return "no error";
}

TEST(ResourcesCache, RejectsANullTextOfSomeLengthAndStaysUsable) {
  ResourcesCache cache;
  const std::uint64_t id = cache.CreateChunk();
  EXPECT_EQ(ErrorOfANullText(cache, id), "basic_string: construction from null is not valid");
  EXPECT_THROW(cache.AppendStr(id, "one", std::string_view(nullptr, 5)), std::logic_error);
  EXPECT_THROW(cache.AppendStr(id, std::string_view(nullptr, 5), "two"), std::logic_error);
  EXPECT_STREQ(cache.AppendStr(id, "text"), "text");
}

TEST(ResourcesCache, MovesABufferInAndDescribesIt) {
  ResourcesCache cache;
  const std::uint64_t id = cache.CreateChunk();
  Buffer buffer = SomeBuffer();
  const std::uint8_t* const address = buffer.GetData();
  QuarnBufferView view{};
  EXPECT_TRUE(cache.AppendBuffer(id, std::move(buffer), &view, sizeof(view)));
  EXPECT_EQ(view.struct_size, sizeof(view));
  EXPECT_EQ(view.data, address);
  EXPECT_EQ(view.size, 3U);
  EXPECT_EQ(buffer.GetSize(), 0U);  // NOLINT(bugprone-use-after-move): it was moved in
}

TEST(ResourcesCache, KeepsBuffersWhereTheyAreWhenManyMoreAreAppended) {
  ResourcesCache cache;
  const std::uint64_t id = cache.CreateChunk();
  QuarnBufferView first{};
  ASSERT_TRUE(cache.AppendBuffer(id, SomeBuffer(), &first, sizeof(first)));
  for (int i = 0; i < 1000; ++i) {
    QuarnBufferView view{};
    ASSERT_TRUE(cache.AppendBuffer(id, SomeBuffer(), &view, sizeof(view)));
  }
  EXPECT_EQ(Buffer::FromCAPI(&first), SomeBuffer());
}

TEST(ResourcesCache, DescribesABufferAsFarAsEverySizeReaches) {
  ResourcesCache cache;
  const std::uint64_t id = cache.CreateChunk();
  for (std::size_t size = 8; size <= sizeof(QuarnBufferView); ++size) {
    std::array<unsigned char, sizeof(QuarnBufferView)> raw{};
    raw.fill(0xEE);
    auto* const view = reinterpret_cast<QuarnBufferView*>(raw.data());
    ASSERT_TRUE(cache.AppendBuffer(id, SomeBuffer(), view, size));
    EXPECT_EQ(view->struct_size, size);
    if (size == 8) {
      EXPECT_EQ(raw[8], 0xEE);
    }
    EXPECT_EQ(size > 15, Buffer(size > 15 ? view->data : nullptr, 3) == SomeBuffer()) << size;
    if (size > 23) {
      EXPECT_EQ(view->size, 3U);
    }
    for (std::size_t i = size; i < raw.size(); ++i) {
      ASSERT_EQ(raw[i], 0xEE) << "size " << size << ", byte " << i;
    }
    for (std::size_t i = size > 15 ? 16 : 8; i < size && size < 24; ++i) {
      ASSERT_EQ(raw[i], 0) << "size " << size << ", byte " << i;
    }
  }
}

TEST(ResourcesCache, DescribesABufferInAStructureOfALaterVersion) {
  struct LaterView {
    QuarnBufferView view;
    std::array<unsigned char, 16> later;
  } structure{};
  structure.later.fill(0xEE);
  ResourcesCache cache;
  ASSERT_TRUE(
      cache.AppendBuffer(cache.CreateChunk(), SomeBuffer(), &structure.view, sizeof(structure)));
  EXPECT_EQ(structure.view.struct_size, sizeof(structure));
  EXPECT_EQ(structure.view.size, 3U);
  EXPECT_THAT(structure.later, testing::Each(0));
}

TEST(ResourcesCache, ReportsANullViewAndLeavesTheBufferWithTheCaller) {
  ResourcesCache cache;
  const std::uint64_t id = cache.CreateChunk();
  Buffer buffer = SomeBuffer();
  bool appended = true;
  const std::string log =
      StdoutOf([&] { appended = cache.AppendBuffer(id, std::move(buffer), nullptr, 24); });
  EXPECT_FALSE(appended);
  EXPECT_THAT(log, IsLogLine("error", "AppendBuffer: output structure pointer is null"));
  EXPECT_EQ(buffer, SomeBuffer());  // NOLINT(bugprone-use-after-move): it was left here
}

TEST(ResourcesCache, ReportsANullViewBeforeAnUnknownChunk) {
  ResourcesCache cache;
  EXPECT_THAT(StdoutOf([&cache] { cache.AppendBuffer(0, SomeBuffer(), nullptr, 24); }),
              IsLogLine("error", "AppendBuffer: output structure pointer is null"));
}

TEST(ResourcesCache, ReportsABufferForARemovedChunkAndLeavesItWithTheCaller) {
  ResourcesCache cache;
  const std::uint64_t id = RemovedChunk(cache);
  Buffer buffer = SomeBuffer();
  const std::uint8_t stale = 1;
  QuarnBufferView view{1, &stale, 1};
  bool appended = true;
  ExpectInvalidChunk(
      id, [&] { appended = cache.AppendBuffer(id, std::move(buffer), &view, sizeof(view)); });
  EXPECT_FALSE(appended);
  EXPECT_EQ(buffer, SomeBuffer());  // NOLINT(bugprone-use-after-move): it was left here
  EXPECT_EQ(view.struct_size, sizeof(view));
  EXPECT_EQ(view.data, nullptr);
  EXPECT_EQ(view.size, 0U);
}

TEST(ResourcesCache, ReportsTheRemovalOfChunkZero) {
  ResourcesCache cache;
  ExpectInvalidChunk(0, [&cache] { cache.RemoveChunk(0); });
}

TEST(ResourcesCache, NeverTakesAFreeSlotForChunkZero) {
  ResourcesCache cache;
  RemovedChunk(cache);
  const char* text = nullptr;
  ExpectInvalidChunk(0, [&] { text = cache.AppendStr(0, "text"); });
  EXPECT_STREQ(text, "");
}

TEST(ResourcesCache, ReportsTheSecondRemovalOfAChunkAndChangesNothing) {
  ResourcesCache cache;
  const std::uint64_t removed = cache.CreateChunk();
  const std::uint64_t other = cache.CreateChunk();
  const char* const text = cache.AppendStr(other, "kept");
  EXPECT_EQ(StdoutOf([&] { cache.RemoveChunk(removed); }), "");
  ExpectInvalidChunk(removed, [&] { cache.RemoveChunk(removed); });
  EXPECT_STREQ(text, "kept");
  EXPECT_EQ(StdoutOf([&] { cache.RemoveChunk(other); }), "");
}

TEST(ResourcesCache, ReportsTheLargestIdInFull) {
  ResourcesCache cache;
  EXPECT_THAT(StdoutOf([&cache] { cache.RemoveChunk(~std::uint64_t{0}); }),
              IsLogLine("error", "Invalid chunk ID <18446744073709551615>"));
}

TEST(ResourcesCache, ReportsIdsInDecimalWhateverTheStreamIsSetTo) {
  ResourcesCache cache;
  const std::string log = StdoutOf([&cache] {
    std::cout << std::hex;
    cache.RemoveChunk(255000000);
    std::cout << std::dec;
  });
  EXPECT_THAT(log, testing::HasSubstr("Invalid chunk ID <255000000>"));
}

TEST(ResourcesCache, ServesProducersAndConsumersOnSeveralThreads) {
  ResourcesCache cache;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&cache, &wrong, i] {
      const std::string text = "text of thread " + std::to_string(i);
      for (int round = 0; round < 500; ++round) {
        const std::uint64_t id = cache.CreateChunk();
        const auto [first, second] = cache.AppendStr(id, text, "other");
        wrong += text != first || std::strcmp(second, "other") != 0 ? 1 : 0;
        cache.RemoveChunk(id);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
}

TEST(ResourcesCacheGuard, HoldsAChunkForTheLengthOfItsScope) {
  ResourcesCache cache;
  std::optional<ResourcesCacheGuard> guard(cache);
  const std::uint64_t id = quarn::details::CounterClient::GenerateId() - 1;
  EXPECT_STREQ(cache.AppendStr(id, "the guard's chunk is known"), "the guard's chunk is known");
  EXPECT_STREQ(guard->AppendStr("one"), "one");
  const auto [second, third] = guard->AppendStr("two", "three");
  EXPECT_STREQ(second, "two");
  EXPECT_STREQ(third, "three");
  QuarnBufferView view{};
  EXPECT_TRUE(guard->AppendBuffer(SomeBuffer(), &view, sizeof(view)));
  EXPECT_EQ(Buffer::FromCAPI(&view), SomeBuffer());
  guard.reset();
  ExpectInvalidChunk(id, [&cache, id] { cache.RemoveChunk(id); });
}

}  // namespace

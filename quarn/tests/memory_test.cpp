// What is given back, and when: a program of its own, because it counts what operator new takes.
#include <gtest/gtest.h>
#include <quarn/object.h>
#include <quarn/resources_cache.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "support/memory_usage.h"

struct ThingRef;

namespace {

using tarv::test::GetMemoryUsage;

class Thing : public quarn::Object<Thing, ThingRef*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  Thing(const std::shared_ptr<quarn::IDispatcher>& dispatcher, PrivateTag) : Object(dispatcher) {}
  static std::shared_ptr<Thing> Create() { return Object::Create(nullptr, PrivateTag()); }
};

TEST(ResourcesCache, FreesTheTextsAndBuffersOfARemovedChunk) {
  constexpr std::size_t kSize = 1 << 20;
  quarn::ResourcesCache cache;
  const std::uint64_t id = cache.CreateChunk();
  const std::size_t before = GetMemoryUsage().held;
  cache.AppendStr(id, std::string(kSize, 'x'));
  QuarnBufferView view{};
  cache.AppendBuffer(id, quarn::Buffer(std::vector<std::uint8_t>(kSize)), &view, sizeof(view));
  ASSERT_GE(GetMemoryUsage().held, before + 2 * kSize);
  cache.RemoveChunk(id);
  EXPECT_LT(GetMemoryUsage().held, before + kSize);
}

// The limit refuses the cache its table of ids, at a growth of that, before anything smaller.
TEST(ResourcesCache, StaysWholeWhenMemoryRunsOutForAChunk) {
  constexpr std::size_t kLimit = 1500;
  quarn::ResourcesCache cache;
  std::vector<std::uint64_t> ids;
  std::vector<const char*> texts;
  const auto create = [&] {
    ids.push_back(cache.CreateChunk());
    texts.push_back(cache.AppendStr(ids.back(), std::to_string(ids.size())));
  };
  GetMemoryUsage().limit = kLimit;
  ids.reserve(kLimit / sizeof(std::uint64_t));
  texts.reserve(kLimit / sizeof(const char*));
  const auto create_all = [&] {
    while (ids.size() < ids.capacity()) {
      create();
    }
  };
  EXPECT_THROW(create_all(), std::bad_alloc);
  EXPECT_THROW(create(), std::bad_alloc);
  GetMemoryUsage().limit = std::numeric_limits<std::size_t>::max();
  for (int i = 0; i < 10; ++i) {
    create();
  }
  for (std::size_t i = 0; i < ids.size(); ++i) {
    EXPECT_EQ(texts[i], std::to_string(i + 1));
    EXPECT_NE(*cache.AppendStr(ids[i], "still known"), '\0');
  }
}

// The registry refers to its objects weakly, and a weak reference keeps an object's memory.
TEST(Object, GivesItsMemoryBackWhenItDies) {
  constexpr int kCount = 100;
  Thing::Create();  // what the registry takes once
  const std::size_t before = GetMemoryUsage().held;
  for (int i = 0; i < kCount; ++i) {
    Thing::Create();
  }
  EXPECT_LT(GetMemoryUsage().held, before + kCount * sizeof(Thing) / 2);
}

}  // namespace

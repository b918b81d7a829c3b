// What is given back, and when: a program of its own, because it counts what operator new takes.
#include <gtest/gtest.h>
#include <quarn/object.h>
#include <quarn/resources_cache.h>

#include <memory>
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

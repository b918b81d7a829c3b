// A program of its own, with one test: the first ids of a process can be seen only once.
#include <gtest/gtest.h>
#include <quarn/object.h>
#include <quarn/resources_cache.h>

#include <memory>

struct FirstRef;
struct SecondRef;

namespace {

template <class Ref>
class Numbered : public quarn::Object<Numbered<Ref>, Ref*> {
  using Base = quarn::Object<Numbered<Ref>, Ref*>;
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  explicit Numbered(PrivateTag) : Base(quarn::IDispatcher::CreateEmpty()) {}
  static std::shared_ptr<Numbered> Create() { return Base::Create(PrivateTag()); }
};

TEST(FreshProcess, NumbersObjectsOfAnyTypeAndChunksFromOneInOneSequence) {
  const auto first = Numbered<FirstRef>::Create();
  const auto second = Numbered<SecondRef>::Create();
  quarn::ResourcesCache cache;
  const std::uint64_t chunk = cache.CreateChunk();
  const auto third = Numbered<FirstRef>::Create();
  EXPECT_EQ(first->GetId(), 1U);
  EXPECT_EQ(second->GetId(), 2U);
  EXPECT_EQ(chunk, 3U);
  EXPECT_EQ(third->GetId(), 4U);
}

}  // namespace

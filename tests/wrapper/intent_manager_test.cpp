#include <gmock/gmock.h>
#include <tarv/intent_manager.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "wrapper_fixture.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class IntentManagerWrapper : public Wrapper {
 protected:
  std::unique_ptr<IntentManager> CreateIntents() {
    manager_ = CreateManager();
    auto intents = manager_->GetIntentManager();
    fake_->calls.clear();
    return intents;
  }
};

TEST_F(IntentManagerWrapper, WithoutATableOrAHandleIsEmptyWithoutAWord) {
  auto* const handle = reinterpret_cast<_TARVIntentManagerRef*>(7);
  EXPECT_EQ(OutputOfFailure([&] { return IntentManager::Create(nullptr, handle); }), "");
  const auto library = quarn::Library::Create(std::string(kFolder) + "/libtarv.so");
  auto api = IntentManager::Api::Create(
      library, [](TARVIntentManagerProcTable*, std::uint64_t) { return QUARN_RESULT_SUCCESS; });
  EXPECT_EQ(OutputOfFailure([&] { return IntentManager::Create(std::move(api), nullptr); }), "");
}

TEST_F(IntentManagerWrapper, OfATableOfSizeEightNamesOpenUriAndDropsTheCallbackUncalled) {
  fake_->intents_size = 8;
  const auto intents = CreateIntents();
  const auto alive = std::make_shared<int>(0);
  EXPECT_THAT(StdoutOf([&] { intents->OpenUri("a:1", [alive](bool) { ADD_FAILURE(); }); }),
              IsMissing("OpenUri"));
  EXPECT_EQ(alive.use_count(), 1);
}

TEST_F(IntentManagerWrapper, OfEachSizeOfATableThatCoversOpenUriAsks) {
  // Up to this library's, and a newer one's.
  for (const std::uint64_t size : {16U, 23U, 24U, 64U}) {
    SCOPED_TRACE(size);
    fake_->intents_size = size;
    const auto intents = CreateIntents();
    EXPECT_EQ(StdoutOf([&] { intents->OpenUri("a:1", [](bool) {}); }), "");
    EXPECT_THAT(fake_->calls, SizeIs(1));
    ASSERT_FALSE(fake_->uri_slots.empty());
    const TARVOpenUriSlot& slot = fake_->uri_slots.back();
    slot.release(slot.user_data);
  }
}

TEST_F(IntentManagerWrapper, EachOpenUriHasASlotOfItsOwnCalledAndReleasedOnce) {
  const auto intents = CreateIntents();
  std::vector<std::string> outcomes;
  const auto alive = std::make_shared<int>(0);
  for (const std::string uri : {"a:1", "a:2"}) {
    intents->OpenUri(uri, [&outcomes, alive, uri](bool success) {
      outcomes.push_back(uri + (success ? " opened" : " failed"));
    });
  }
  EXPECT_THAT(fake_->calls, ElementsAre("OpenUri(12, 'a:1')", "OpenUri(12, 'a:2')"));
  EXPECT_EQ(alive.use_count(), 3);
  for (const TARVOpenUriSlot& slot : fake_->uri_slots) {
    EXPECT_EQ(slot.size, 32U);
    slot.callback(slot.user_data, &slot == &fake_->uri_slots.front());
    slot.release(slot.user_data);
  }
  EXPECT_THAT(outcomes, ElementsAre("a:1 opened", "a:2 failed"));
  EXPECT_EQ(alive.use_count(), 1);
}

TEST_F(IntentManagerWrapper, RefusedRequestNeitherCallsNorReleasesTheCallback) {
  fake_->failing = {"OpenUri"};
  const auto intents = CreateIntents();
  const auto alive = std::make_shared<int>(0);
  intents->OpenUri("a:1", [alive](bool) { ADD_FAILURE(); });
  EXPECT_EQ(alive.use_count(), 2);
  // What the service did not take is the test's to free.
  fake_->uri_slots[0].release(fake_->uri_slots[0].user_data);
}

TEST_F(IntentManagerWrapper, EmptyCallbackRaisesTheStandardErrorWhenCalled) {
  const auto intents = CreateIntents();
  intents->OpenUri("a:1", nullptr);
  const TARVOpenUriSlot slot = fake_->uri_slots.at(0);
  EXPECT_THROW(slot.callback(slot.user_data, true), std::bad_function_call);
  slot.release(slot.user_data);
}

TEST_F(IntentManagerWrapper, CallsNothingInTheServiceWhenItDies) {
  auto intents = CreateIntents();
  intents.reset();
  EXPECT_THAT(fake_->calls, IsEmpty());
}

// Only Create makes one.
static_assert(!std::is_constructible_v<IntentManager, std::unique_ptr<IntentManager::Api>,
                                       _TARVIntentManagerRef*>);

TEST_F(IntentManagerWrapper, WithoutTheEntryEmptiesACallbackThatItsCallerStillHolds) {
  fake_->intents_size = 8;
  const auto intents = CreateIntents();
  const auto alive = std::make_shared<int>(0);
  std::function<void(bool)> callback = [alive](bool) { ADD_FAILURE(); };
  StdoutOf([&] { intents->OpenUri("a:1", std::move(callback)); });
  EXPECT_EQ(alive.use_count(), 1);
}

TEST_F(IntentManagerWrapper, RefusesAUriThatHoldsANulAndDropsTheCallbackUncalled) {
  const auto intents = CreateIntents();
  const auto alive = std::make_shared<int>(0);
  EXPECT_THAT(
      StdoutOf(
          [&] { intents->OpenUri(std::string("a:1\0b", 5), [alive](bool) { ADD_FAILURE(); }); }),
      IsLogLine("error",
                "The URI to open holds a NUL at byte 3 of 5 and was refused: take it out."));
  EXPECT_EQ(alive.use_count(), 1);
  EXPECT_THAT(fake_->calls, IsEmpty());
}

}  // namespace
}  // namespace tarv::test

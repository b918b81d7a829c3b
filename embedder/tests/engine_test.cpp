#include <cw/binary_messenger.h>
#include <cw/method_channel.h>
#include <cw/view_wrapper.h>
#include <gmock/gmock.h>
#include <quarn/slot.h>

#include <QChildEvent>
#include <QPointer>
#include <QTimer>
#include <QTimerEvent>
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <thread>
#include <vector>

#include "engine_fixture.h"

extern "C" {
std::size_t VeltraTestSizeOfContextInC();
std::size_t VeltraTestSizeOfViewTableInC();
}

namespace {

using testing::ElementsAre;
using veltra::host::Bytes;
using veltra::test::EngineTest;
using veltra::test::Tracker;

TEST(Layout, IsTheSameInCAndCpp) {
  EXPECT_EQ(VeltraTestSizeOfContextInC(), sizeof(FlutterVeltraPluginContext));
  EXPECT_EQ(VeltraTestSizeOfViewTableInC(), sizeof(FlutterVeltraViewProcTable));
}

TEST_F(EngineTest, MakesContextsOfOlderSizes) {
  for (const std::size_t size : {24U, 32U, 39U, 40U, 64U, 72U}) {
    const auto* const context = engine_->MakeContext(size);
    EXPECT_EQ(context->size, size);
    EXPECT_EQ(context->engine, engine_->GetRef());
    EXPECT_EQ(context->SetRegistrarDestroyedCallback != nullptr, size >= 40);
    EXPECT_EQ(context->MessengerProcTableLoad != nullptr, size >= 72);
  }
  EXPECT_EQ(engine_->MakeContext(23)->engine, nullptr);
  EXPECT_EQ(engine_->MakeContext(1000)->size, 72U);
}

TEST_F(EngineTest, LeavesMissingEntriesNull) {
  veltra::host::EngineOptions options;
  options.missing_entries = {"ViewProcTableLoad", "Send"};
  options.table_sizes.messenger = 24;
  Restart(options);
  const auto* const context = engine_->MakeContext();
  EXPECT_EQ(context->ViewProcTableLoad, nullptr);
  FlutterVeltraMessengerProcTable table{};
  ASSERT_TRUE(context->MessengerProcTableLoad(context->engine, &table, sizeof(table)));
  EXPECT_EQ(table.size, 24U);
  EXPECT_EQ(table.Send, nullptr);
  EXPECT_NE(table.SetMessageHandler, nullptr);
  EXPECT_EQ(table.OnChannelUpdateSubscribe, nullptr);
}

TEST_F(EngineTest, LoadersZeroTheWholeTableAndStateWhatTheyKnowOfIt) {
  veltra::host::EngineOptions options;
  options.table_sizes.messenger = 24;
  Restart(options);
  const auto* const context = engine_->MakeContext();
  struct {
    FlutterVeltraMessengerProcTable table;
    std::uint64_t newer_entry;
    std::uint64_t not_the_tables;
  } memory{};
  std::memset(&memory, 0xAA, sizeof(memory));
  const std::size_t size = offsetof(decltype(memory), not_the_tables);
  ASSERT_TRUE(context->MessengerProcTableLoad(context->engine, &memory.table, size));
  EXPECT_EQ(memory.table.size, 24U);
  EXPECT_NE(memory.table.SetMessageHandler, nullptr);
  EXPECT_EQ(memory.table.OnChannelUpdateSubscribe, nullptr);
  EXPECT_EQ(memory.table.OnChannelUpdateUnsubscribe, nullptr);
  EXPECT_EQ(memory.newer_entry, 0U);
  EXPECT_EQ(memory.not_the_tables, 0xAAAAAAAAAAAAAAAAU);
}

TEST_F(EngineTest, LoadersFailForANullTableAndForAnEngineThatIsGone) {
  const FlutterVeltraPluginContext context = *engine_->MakeContext();
  EXPECT_FALSE(context.MessengerProcTableLoad(context.engine, nullptr, 40));
  engine_.reset();
  FlutterVeltraMessengerProcTable table{};
  EXPECT_FALSE(context.MessengerProcTableLoad(context.engine, &table, sizeof(table)));
  EXPECT_FALSE(context.MessengerProcTableLoad(nullptr, &table, sizeof(table)));
}

TEST_F(EngineTest, KnowsItsPlatformThread) {
  const FlutterVeltraPluginContext context = *engine_->MakeContext();
  EXPECT_TRUE(context.RunsOnPlatformThread(context.engine));
  std::thread other([&context] { EXPECT_FALSE(context.RunsOnPlatformThread(context.engine)); });
  other.join();
  engine_.reset();
  EXPECT_FALSE(context.RunsOnPlatformThread(context.engine));
}

std::vector<_FlutterVeltraEngine*>& Ended() {
  static std::vector<_FlutterVeltraEngine*> ended;
  return ended;
}

TEST_F(EngineTest, TellsEachRegistrarThatItEnds) {
  Ended().clear();
  const auto* const context = engine_->MakeContext();
  _FlutterVeltraEngine* const handle = engine_->GetRef();
  context->SetRegistrarDestroyedCallback(handle, [](auto* engine) { Ended().push_back(engine); });
  context->SetRegistrarDestroyedCallback(handle, nullptr);
  EXPECT_TRUE(Ended().empty());
  engine_.reset();
  EXPECT_THAT(Ended(), ElementsAre(handle));
}

FlutterVeltraPluginContext*& ContextThatEnds() {
  static FlutterVeltraPluginContext* context = nullptr;
  return context;
}

TEST_F(EngineTest, TellsARegistrarThatIsMadeWhileItEnds) {
  Ended().clear();
  auto* const context = ContextThatEnds() = engine_->MakeContext();
  _FlutterVeltraEngine* const handle = engine_->GetRef();
  context->SetRegistrarDestroyedCallback(handle, [](auto* engine) {
    Ended().push_back(engine);
    ContextThatEnds()->SetRegistrarDestroyedCallback(
        engine, [](auto* same_engine) { Ended().push_back(same_engine); });
  });
  engine_.reset();
  EXPECT_THAT(Ended(), ElementsAre(handle, handle));
}

// ---- Tasks --------------------------------------------------------------------------------------

class TaskTest : public EngineTest {
 protected:
  TaskTest() {
    const auto* const context = engine_->MakeContext();
    context->ApplicationProcTableLoad(context->engine, &table_, sizeof(table_));
  }

  void Enqueue(std::function<void()> task, unsigned int delay = 0) {
    const auto slot = quarn::CreateSlot<FlutterVeltraSlot>(std::move(task));
    table_.EnqueueTask(handle_, &slot, delay);
  }

  _FlutterVeltraEngine* const handle_ = engine_->GetRef();
  FlutterVeltraApplicationProcTable table_{};
};

TEST_F(TaskTest, ThatHaveNotRunAreReleasedUnrunWhenTheEngineEnds) {
  Tracker soon;
  Tracker delayed;
  Enqueue([tracked = delayed.Track()] { FAIL(); }, 3600'000);
  RunPosted();
  Enqueue([tracked = soon.Track()] { FAIL(); });
  EXPECT_FALSE(soon.IsReleased());
  EXPECT_FALSE(delayed.IsReleased());
  engine_.reset();
  EXPECT_TRUE(soon.IsReleased());
  EXPECT_TRUE(delayed.IsReleased());
}

TEST_F(TaskTest, OfAnEngineThatIsGoneAreReleasedAtOnce) {
  engine_.reset();
  Tracker tracker;
  Enqueue([tracked = tracker.Track()] { FAIL(); });
  EXPECT_TRUE(tracker.IsReleased());
}

TEST_F(TaskTest, MayEndTheEngine) {
  Tracker later;
  Enqueue([this] { engine_.reset(); });
  Enqueue([tracked = later.Track()] { FAIL(); });
  veltra::host::Engine other;
  EXPECT_TRUE(other.RunUntil([this] { return engine_ == nullptr; }));
  EXPECT_TRUE(later.IsReleased());
}

TEST_F(TaskTest, MayEndTheEngineAfterADelay) {
  Enqueue([this] { engine_.reset(); }, 1);
  Enqueue([] { FAIL(); }, 3600'000);
  veltra::host::Engine other;
  EXPECT_TRUE(other.RunUntil([this] { return engine_ == nullptr; }));
}

// Knows the timers that are started while it lives.
class TimerWatch : public QObject {
 public:
  TimerWatch() { QCoreApplication::instance()->installEventFilter(this); }

  // The one timer that there is, which must be waiting.
  QTimer& GetTimer() const {
    const auto found =
        std::find_if(children_.begin(), children_.end(), [](const QPointer<QObject>& child) {
          return qobject_cast<QTimer*>(child.data()) != nullptr;
        });
    if (found == children_.end()) {
      throw std::logic_error("no timer has been started");
    }
    return *qobject_cast<QTimer*>(found->data());
  }

  // Makes its time be up.
  void Fire() const {
    QTimerEvent event(GetTimer().timerId());
    QCoreApplication::sendEvent(&GetTimer(), &event);
  }

 protected:
  bool eventFilter(QObject* /*parent*/, QEvent* event) override {
    if (event->type() == QEvent::ChildAdded) {
      children_.emplace_back(static_cast<QChildEvent*>(event)->child());
    }
    return false;
  }

 private:
  std::vector<QPointer<QObject>> children_;
};

TEST_F(TaskTest, DelayedForLongerThanATimerCanWaitAreWaitedForInTurns) {
  constexpr int kLongest = std::numeric_limits<int>::max();
  const TimerWatch watch;
  bool done = false;
  Enqueue([&done] { done = true; }, 2U * kLongest + 1);
  RunPosted();
  EXPECT_EQ(watch.GetTimer().interval(), kLongest);
  EXPECT_TRUE(watch.GetTimer().isActive());
  watch.Fire();
  EXPECT_EQ(watch.GetTimer().interval(), kLongest);
  EXPECT_TRUE(watch.GetTimer().isActive());
  EXPECT_FALSE(done);
  watch.Fire();
  EXPECT_EQ(watch.GetTimer().interval(), 1);
  EXPECT_TRUE(RunUntil([&done] { return done; }));
}

TEST_F(TaskTest, ArePostedWhileTheEngineEnds) {
  // Either run or are released, from whatever moment they come.
  std::atomic<bool> stop = false;
  std::atomic<int> alive = 0;
  std::vector<std::thread> posters;
  for (int i = 0; i < 3; ++i) {
    posters.emplace_back([&] {
      while (!stop) {
        ++alive;
        Enqueue([counted = std::shared_ptr<void>(nullptr, [&alive](void*) { --alive; })] {});
        std::this_thread::yield();
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    RunPosted();
  }
  engine_.reset();
  stop = true;
  for (std::thread& poster : posters) {
    poster.join();
  }
  EXPECT_EQ(alive, 0);
}

// ---- Messages -----------------------------------------------------------------------------------

class MessengerTest : public EngineTest {
 protected:
  MessengerTest() : plugin_(cw::BinaryMessenger::Create(engine_->MakeContext())) {}
  veltra::host::Messenger& Dart() { return engine_->GetMessenger(); }

  std::unique_ptr<cw::BinaryMessenger> plugin_;
};

TEST_F(MessengerTest, AnswersWithoutBytesWhereNoPluginListens) {
  std::optional<Bytes> reply;
  Dart().Send("channel", {1}, [&reply](const Bytes& bytes) { reply = bytes; });
  EXPECT_FALSE(reply);
  ASSERT_TRUE(RunUntil([&reply] { return reply.has_value(); }));
  EXPECT_TRUE(reply->empty());
}

TEST_F(MessengerTest, CarriesRawBytesBothWaysInOrder) {
  std::string order;
  plugin_->SetMessageHandler("channel", [&order](const std::uint8_t* data, std::size_t size,
                                                 const cw::BinaryReply& reply) {
    order.append(data, data + size);
    reply(data, size);
  });
  Dart().SetMessageHandler("channel", [&order](const Bytes& message, const auto& reply) {
    order.append(message.begin(), message.end());
    reply(message);
  });
  const Bytes letters = {'a', 'b', 'c'};
  for (const std::uint8_t& letter : letters) {
    Dart().Send("channel", {letter});
    plugin_->Send("channel", &letter, 1);
  }
  RunPosted();
  EXPECT_EQ(order, "aabbcc");
}

// {"a": <an empty list of the kind>, "b": true}, behind the name of a call, "m".
Bytes PaddedCall(std::uint8_t type, std::size_t padding) {
  Bytes bytes = {7, 1, 'm', 13, 2, 7, 1, 'a', type, 0};
  bytes.resize(bytes.size() + padding);
  bytes.insert(bytes.end(), {7, 1, 'b', 1});
  return bytes;
}

TEST_F(MessengerTest, PadsEmptyTypedListsAsDartDoes) {
  std::vector<Bytes> received;
  plugin_->SetMessageHandler("channel", [&received](const std::uint8_t* data, std::size_t size,
                                                    const cw::BinaryReply& reply) {
    received.emplace_back(data, data + size);
    reply(nullptr, 0);
  });
  const auto call = [this](cw::EncodableValue list) {
    Dart().InvokeMethod("channel", "m", cw::EncodableMap{{"a", std::move(list)}, {"b", true}});
  };
  call(std::vector<std::int32_t>());
  call(std::vector<std::int64_t>());
  call(std::vector<double>());
  call(std::vector<float>());
  call(std::vector<std::uint8_t>());
  RunPosted();
  EXPECT_THAT(received, testing::ElementsAre(PaddedCall(9, 2), PaddedCall(10, 6), PaddedCall(11, 6),
                                             PaddedCall(14, 2), PaddedCall(8, 0)));
}

TEST_F(MessengerTest, BringsEmptyTypedListsToPluginsAndBack) {
  cw::MethodChannel<> channel(plugin_.get(), "channel");
  const cw::EncodableValue value(
      cw::EncodableMap{{"tags", std::vector<std::int32_t>()}, {"user", "ann"}});
  std::optional<cw::EncodableValue> heard;
  channel.SetMethodCallHandler([&heard](const auto& call, auto result) {
    heard = *call.GetArguments();
    result->Error("E", "no", *heard);
  });
  std::optional<veltra::host::MethodOutcome> outcome;
  Dart().InvokeMethod("channel", "m", value, [&outcome](const auto& its) { outcome = its; });
  ASSERT_TRUE(RunUntil([&outcome] { return outcome.has_value(); }));
  EXPECT_EQ(heard, value);
  EXPECT_EQ(outcome->details, value);
}

TEST_F(MessengerTest, TellsPluginsWhetherDartListens) {
  std::vector<bool> updates;
  const std::uint64_t id =
      plugin_->OnChannelUpdateSubscribe("channel", [&](bool on) { updates.push_back(on); });
  ASSERT_GT(id, 0U);
  const auto handler = [](const Bytes&, const auto& reply) { reply({}); };
  Dart().SetMessageHandler("another", handler);
  Dart().SetMessageHandler("channel", handler);
  Dart().SetMessageHandler("channel", handler);
  Dart().SetMessageHandler("channel", nullptr);
  Dart().SetMessageHandler("channel", nullptr);
  RunPosted();
  EXPECT_THAT(updates, ElementsAre(true, false));
  plugin_->OnChannelUpdateUnsubscribe("another", id);
  plugin_->OnChannelUpdateUnsubscribe("channel", id);
  Dart().SetMessageHandler("channel", handler);
  RunPosted();
  EXPECT_EQ(updates.size(), 2U);
}

TEST_F(MessengerTest, ReleasesSubscriptionsAndAnswersWaitersWhenTheEngineEnds) {
  Tracker tracker;
  plugin_->OnChannelUpdateSubscribe("channel", [tracked = tracker.Track()](bool) {});
  int empty_replies = 0;
  plugin_->Send("channel", nullptr, 0, [&](const std::uint8_t* data, std::size_t size) {
    empty_replies += data == nullptr && size == 0 ? 1 : 0;
  });
  engine_.reset();
  EXPECT_TRUE(tracker.IsReleased());
  EXPECT_EQ(empty_replies, 1);
}

TEST_F(MessengerTest, SendsNothingForAnEngineThatIsGone) {
  engine_.reset();
  Tracker tracker;
  plugin_->Send("channel", nullptr, 0,
                [tracked = tracker.Track()](const std::uint8_t*, std::size_t) { FAIL(); });
  EXPECT_TRUE(tracker.IsReleased());
  EXPECT_EQ(plugin_->OnChannelUpdateSubscribe("channel", [](bool) {}), 0U);
}

TEST_F(MessengerTest, KeepsReplyingOnceWhenDartRepliesTwice) {
  int replies = 0;
  Dart().SetMessageHandler("channel", [](const Bytes&, const auto& reply) {
    reply({1});
    reply({2});
  });
  plugin_->Send("channel", nullptr, 0, [&](const std::uint8_t*, std::size_t) { ++replies; });
  ASSERT_TRUE(RunUntil([&replies] { return replies > 0; }));
  RunPosted();
  EXPECT_EQ(replies, 1);
}

// ---- The view -----------------------------------------------------------------------------------

TEST_F(EngineTest, LockedResourcesStayAsTheyWere) {
  const auto* const context = engine_->MakeContext();
  FlutterVeltraViewProcTable table{};
  ASSERT_TRUE(context->ViewProcTableLoad(context->engine, &table, sizeof(table)));
  FlutterVeltraTheme theme{};
  theme.size = sizeof(theme);
  EXPECT_FALSE(table.GetTheme(context->engine, &theme));
  EXPECT_FALSE(table.LockResources(context->engine, nullptr));

  engine_->GetView().SetTheme({"before"});
  FlutterVeltraResourcesLock lock{sizeof(lock), nullptr, nullptr};
  ASSERT_TRUE(table.LockResources(context->engine, &lock));
  ASSERT_TRUE(table.GetTheme(context->engine, &theme));
  engine_->GetView().SetTheme({"after"});
  EXPECT_STREQ(theme.name, "before");
  engine_.reset();
  EXPECT_STREQ(theme.name, "before");
  lock.release(lock.lock_data);
}

// Two locks that overlap, and a theme that changes between them.
class OverlappingLocks : public EngineTest {
 protected:
  OverlappingLocks() : context_(engine_->MakeContext()) {
    context_->ViewProcTableLoad(context_->engine, &table_, sizeof(table_));
    engine_->GetView().SetTheme({"before"});
    Lock(first_);
    engine_->GetView().SetTheme({"after"});
    Lock(second_);
    EXPECT_EQ(engine_->GetView().CountLocks(), 2U);
    theme_.size = sizeof(theme_);
    EXPECT_TRUE(table_.GetTheme(context_->engine, &theme_));
  }

  void Lock(FlutterVeltraResourcesLock& lock) {
    lock.size = sizeof(lock);
    EXPECT_TRUE(table_.LockResources(context_->engine, &lock));
  }
  static void Release(const FlutterVeltraResourcesLock& lock) { lock.release(lock.lock_data); }

  FlutterVeltraPluginContext* context_;
  FlutterVeltraViewProcTable table_{};
  FlutterVeltraResourcesLock first_{};
  FlutterVeltraResourcesLock second_{};
  FlutterVeltraTheme theme_{};
};

TEST_F(OverlappingLocks, KeepWhatEitherWasHandedUntilTheLastIsReleased) {
  EXPECT_STREQ(theme_.name, "before");
  Release(second_);
  EXPECT_STREQ(theme_.name, "before");
  Release(first_);
  EXPECT_EQ(engine_->GetView().CountLocks(), 0U);
}

TEST_F(OverlappingLocks, MayBeReleasedInTheOrderInWhichTheyWereTaken) {
  Release(first_);
  EXPECT_STREQ(theme_.name, "before");
  EXPECT_TRUE(table_.GetTheme(context_->engine, &theme_));
  EXPECT_STREQ(theme_.name, "before");
  Release(second_);
  EXPECT_FALSE(table_.GetTheme(context_->engine, &theme_));
}

TEST_F(OverlappingLocks, AreFollowedByWhatHasChangedMeanwhile) {
  Release(first_);
  Release(second_);
  Lock(first_);
  EXPECT_TRUE(table_.GetTheme(context_->engine, &theme_));
  EXPECT_STREQ(theme_.name, "after");
  Release(first_);
}

}  // namespace

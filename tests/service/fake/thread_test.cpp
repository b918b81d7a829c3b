// Which thread a callback runs on, and what other threads may do meanwhile.

#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>

#include <QEventLoop>
#include <QThread>
#include <QTimer>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "fake_platform.h"
#include "kit/flood.h"

namespace tarv::test {
namespace {

using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;
using testing::Each;
using testing::SizeIs;

// ---- Signals are heard on the thread that emits them, before they return

class EmittedByAnotherThread : public FakePlatform {
 protected:
  EmittedByAnotherThread() {
    TARVRpcClientSlots slots{};
    slots.size = sizeof(slots);
    slots.OnMessage = [](void* self, const char*, std::size_t) { Note(self); };
    slots.OnDisconnect = [](void* self, int, const char*, std::size_t) { Note(self); };
    slots.user_data = this;
    table_.StartTask(client_, "worker", "/libs", &slots);
    Task::GetAll().at(0)->complete_start({});
  }

  static void Note(void* self) {
    static_cast<EmittedByAnotherThread*>(self)->heard_on_.push_back(std::this_thread::get_id());
  }

  // Expects one callback, on the thread that runs `emit`, by the time that `emit` returns.
  template <class Emit>
  void ExpectToHear(Emit&& emit) {
    std::vector<std::thread::id> heard;
    std::thread thread([&] {
      emit();
      heard = std::exchange(heard_on_, {});
    });
    const std::thread::id id = thread.get_id();
    thread.join();
    EXPECT_THAT(heard, SizeIs(1));
    EXPECT_THAT(heard, Each(id));
  }

  std::vector<std::thread::id> heard_on_;
};

TEST_F(EmittedByAnotherThread, MessageReachesTheClientOnThatThread) {
  ExpectToHear([] { Q_EMIT Channel().messageReceived({{"data", "x"}}); });
}

TEST_F(EmittedByAnotherThread, MessageReachesTheServerOnThatThread) {
  TARVRpcServerSlots slots{};
  slots.size = sizeof(slots);
  slots.OnMessage = [](void* self, const char*, std::size_t) { Note(self); };
  slots.user_data = this;
  server_table_.Run(root_.GetRpcServer(manager_), &slots);
  ExpectToHear([] { Q_EMIT TaskMessaging::GetAll().at(1)->messageReceived({{"data", "x"}}); });
}

TEST_F(EmittedByAnotherThread, IntentsReplyReachesTheSlotOnThatThread) {
  TARVIntentManagerProcTable intent_table{};
  root_.IntentManagerProcTableLoad(&intent_table, sizeof(intent_table));
  TARVOpenUriSlot slot{};
  slot.size = sizeof(slot);
  slot.callback = [](void* self, bool) { Note(self); };
  slot.user_data = this;
  intent_table.OpenUri(root_.GetIntentManager(manager_), "a:1", &slot);
  ExpectToHear([] { Q_EMIT RuntimeManager::IntentsInvoker::GetLatest()->replyReceived({}, {}); });
}

#ifdef FAKE_OPTIONAL_MEMBERS
TEST_F(EmittedByAnotherThread, TextReachesTheClientOnThatThread) {
  ExpectToHear([] {
    QByteArray text("x");
    Q_EMIT Channel().dataReceived(text);
  });
}

TEST_F(EmittedByAnotherThread, EndOfTheTaskReachesTheClientOnThatThread) {
  ExpectToHear([] { Q_EMIT Task::GetAll().at(0)->finished({7, "gone"}); });
}

TEST_F(EmittedByAnotherThread, LossOfTheChannelReachesTheClientOnThatThread) {
  ExpectToHear([] { Q_EMIT Channel().disconnected({7, "gone"}); });
}
#endif

// ---- Any thread may send while the object ends

class Sending : public FakePlatform {
 protected:
  ~Sending() override { TaskMessaging::OnDestroyed() = nullptr; }
};

constexpr auto kPatience = std::chrono::seconds(60);

constexpr char kAllRefused[] = "refused 8, gave up 0, otherwise 0";

TEST_F(Sending, ByManyThreadsWhileTheClientIsReleasedEndsInARefusal) {
  Start().complete_start({});
  Flood flood;
  flood.Start([this] { return table_.SendMessage(client_, "hello"); });
  flood.WaitUntilItFlows();
  table_.Release(client_);
  EXPECT_EQ(flood.Join(), kAllRefused);
  Task::GetAll().at(0)->complete_stop({});
  RunDeferredDeletes();
  EXPECT_EQ(log_.back(), "released");
}

TEST_F(Sending, ByManyThreadsWhileTheServerEndsEndsInARefusal) {
  _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
  server_table_.Run(server, nullptr);
  Flood flood;
  flood.Start([this, server] { return server_table_.SendMessage(server, "hello"); });
  flood.WaitUntilItFlows();
  root_.Release(manager_);
  EXPECT_EQ(flood.Join(), kAllRefused);
}

// A send that has begun on another thread, and goes on when Finish() says so.
class SlowSend {
 public:
  template <class Send>
  explicit SlowSend(TaskMessaging& channel, Send send) {
    channel.on_send = [this] {
      begun_.set_value();
      go_on_.get_future().wait_for(kPatience);
    };
    thread_ = std::thread(std::move(send));
    begun_.get_future().wait_for(kPatience);
  }
  ~SlowSend() { Finish(); }
  SlowSend(const SlowSend&) = delete;
  SlowSend& operator=(const SlowSend&) = delete;

  void Finish() {
    if (thread_.joinable()) {
      go_on_.set_value();
      thread_.join();
    }
  }

 private:
  std::promise<void> begun_;
  std::promise<void> go_on_;
  std::thread thread_;
};

TEST_F(Sending, ThatHasBegunKeepsTheChannelButNotTheClientWhoseSlotsAreReleasedOnItsThread) {
  Start().complete_start({});
  const auto channel = TaskMessaging::GetAll().at(0);
  QThread* destroyed_on = nullptr;
  TaskMessaging::OnDestroyed() = [&destroyed_on] { destroyed_on = QThread::currentThread(); };
  SlowSend send(Channel(), [this] { table_.SendMessage(client_, "slow"); });
  root_.Release(manager_);
  EXPECT_EQ(log_.back(), "released");
  RunDeferredDeletes();
  EXPECT_FALSE(channel.isNull());
  send.Finish();
  EXPECT_FALSE(channel.isNull()) << "its own thread deletes it";
  QCoreApplication::processEvents();
  RunDeferredDeletes();
  EXPECT_TRUE(channel.isNull());
  EXPECT_EQ(destroyed_on, QThread::currentThread());
}

TEST_F(Sending, ThatEndsLastLeavesTheChannelAloneInsideItsOwnSignal) {
  struct Inside {
    Sending* test;
    bool alive = false;
  } inside{this};
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.OnMessage = [](void* user_data, const char*, std::size_t) {
    auto* const self = static_cast<Inside*>(user_data);
    const auto channel = TaskMessaging::GetAll().at(0);
    SlowSend send(*channel, [self] { self->test->table_.SendMessage(self->test->client_, "x"); });
    self->test->table_.Release(self->test->client_);
    send.Finish();
    QEventLoop loop;
    QTimer::singleShot(0, &loop, &QEventLoop::quit);
    loop.exec();
    self->alive = !channel.isNull();
  };
  slots.user_data = &inside;
  ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  Task::GetAll().at(0)->complete_start({});
  Q_EMIT Channel().messageReceived({{"data", "go"}});
  EXPECT_TRUE(inside.alive);
}

TEST_F(Sending, LeavesNoChannelOfAThreadThatEndsWithoutAnEventLoop) {
  std::thread([this] {
    Start().complete_start({});
    EXPECT_EQ(table_.SendMessage(client_, "hello"), QUARN_RESULT_SUCCESS);
    table_.Release(client_);
    Task::GetAll().at(0)->complete_stop({});
    EXPECT_FALSE(TaskMessaging::GetAll().at(0).isNull());
  }).join();
  EXPECT_TRUE(TaskMessaging::GetAll().at(0).isNull());
}

}  // namespace
}  // namespace tarv::test

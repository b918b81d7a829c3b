// A client whose task ends, or whose channel is lost, by itself, on a platform that tells so; and
// texts that travel without a JSON object on one that has the shortcut.

#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>

#include "fake_platform.h"

namespace tarv::test {
namespace {

using RuntimeManager::Error;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;
using testing::ElementsAre;
using testing::IsEmpty;

class LostTask : public FakePlatform {
 protected:
  // What a client hears whose task ends with this code.
  std::string HeardOf(int code) {
    client_ = root_.CreateRpcClient(manager_);
    log_.clear();
    Task::GetAll().clear();
    Start().complete_start({});
    Q_EMIT Task::GetAll().at(0)->finished({code, "gone"});
    return log_.at(1);
  }
};

TEST_F(LostTask, DisconnectsWithTheReasonThenStopsTheTaskThenReleasesTheSlots) {
  Task& task = Start();
  task.complete_start({});
  task.on_stop = [this] { log_.emplace_back("stop"); };
  Q_EMIT task.finished({-32001, "it göt lost"});
  task.complete_stop({});
  EXPECT_THAT(log_, ElementsAre("started 0 ", "disconnect -32001 it göt lost", "stop", "released"));
}

TEST_F(LostTask, ByItsChannelDisconnectsAlike) {
  Task& task = Start();
  task.complete_start({});
  Q_EMIT Channel().disconnected({-32003, "hung up"});
  task.complete_stop({});
  EXPECT_THAT(log_, ElementsAre("started 0 ", "disconnect -32003 hung up", "released"));
}

TEST_F(LostTask, ThatIsToldTwiceCountsOnceAndReleaseFindsNothingToDo) {
  Task& task = Start();
  task.complete_start({});
  Q_EMIT task.finished({-32001, "first"});
  Q_EMIT task.finished({-32002, "second"});
  Q_EMIT Channel().disconnected({-32003, "third"});
  table_.Release(client_);
  EXPECT_THAT(log_, ElementsAre("started 0 ", "disconnect -32001 first"));
}

TEST_F(LostTask, WhileStillStartingIsNotHeardAsADisconnect) {
  Task& task = Start();
  Q_EMIT task.finished({-32001, "early"});
  EXPECT_THAT(log_, IsEmpty());
}

TEST_F(LostTask, PassesOnThePlatformsCodeWhereJsonRpcLeavesItToServers) {
  EXPECT_EQ(HeardOf(-32099), "disconnect -32099 gone");
  EXPECT_EQ(HeardOf(-32050), "disconnect -32050 gone");
  EXPECT_EQ(HeardOf(-32000), "disconnect -32000 gone");
}

TEST_F(LostTask, TurnsEveryOtherCodeIntoAnInternalError) {
  for (const int code : {-32100, -31999, -32603, -1, 0, 7, 32001}) {
    EXPECT_EQ(HeardOf(code), "disconnect -32603 gone") << code;
  }
}

TEST_F(LostTask, RefusesToSendInsideOnDisconnect) {
  struct Seen {
    LostTask* test;
    std::vector<QuarnResult> results;
  } seen{this, {}};
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.OnDisconnect = [](void* user_data, int, const char*, std::size_t) {
    auto* const self = static_cast<Seen*>(user_data);
    self->results.push_back(self->test->table_.SendMessage(self->test->client_, "late"));
  };
  slots.user_data = &seen;
  for (const bool by_channel : {false, true}) {
    client_ = root_.CreateRpcClient(manager_);
    ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
    Task& task = *Task::GetAll().back();
    task.complete_start({});
    ASSERT_EQ(table_.SendMessage(client_, "in time"), QUARN_RESULT_SUCCESS);
    if (by_channel) {
      Q_EMIT TaskMessaging::GetAll().back()->disconnected({7, "gone"});
    } else {
      Q_EMIT task.finished({7, "gone"});
    }
  }
  EXPECT_THAT(seen.results, ElementsAre(QUARN_RESULT_REFUSED, QUARN_RESULT_REFUSED));
}

TEST_F(LostTask, HearsNothingMoreInsideOnDisconnect) {
  TARVRpcClientSlots slots = MakeSlots();
  slots.OnDisconnect = [](void* log, int, const char*, std::size_t) {
    QByteArray text("late");
    Q_EMIT Channel().dataReceived(text);
    Q_EMIT Channel().messageReceived({{"data", "later"}});
    Log(log, "disconnected");
  };
  ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  Task::GetAll().at(0)->complete_start({});
  Q_EMIT Channel().messageReceived({{"data", "in time"}});
  Q_EMIT Channel().disconnected({-32003, "hung up"});
  EXPECT_THAT(log_, ElementsAre("started 0 ", "message in time", "disconnected"));
}

// ---- The shortcut for texts

class Shortcut : public FakePlatform {};

TEST_F(Shortcut, TakesTheTextsOfAClient) {
  Start().complete_start({});
  table_.SendMessage(client_, "grüß dich");
  EXPECT_THAT(Channel().sent_texts, ElementsAre("grüß dich"));
  EXPECT_THAT(Channel().sent, IsEmpty());
}

TEST_F(Shortcut, TakesTheTextsOfAServer) {
  _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
  server_table_.Run(server, nullptr);
  server_table_.SendMessage(server, "grüß dich");
  EXPECT_THAT(Channel().sent_texts, ElementsAre("grüß dich"));
  EXPECT_THAT(Channel().sent, IsEmpty());
}

TEST_F(Shortcut, BringsTextsBesideObjectsInTheirOrder) {
  Start().complete_start({});
  QByteArray first("first");
  QByteArray third("third");
  Q_EMIT Channel().dataReceived(first);
  Q_EMIT Channel().messageReceived({{"data", "second"}});
  Q_EMIT Channel().dataReceived(third);
  EXPECT_THAT(log_, ElementsAre("started 0 ", "message first", "message second", "message third"));
}

TEST_F(Shortcut, BringsTextsToAServer) {
  TARVRpcServerSlots slots{};
  slots.size = sizeof(slots);
  slots.OnMessage = [](void* log, const char* text, std::size_t) { Log(log, text); };
  slots.user_data = &log_;
  server_table_.Run(root_.GetRpcServer(manager_), &slots);
  QByteArray text("grüß dich");
  Q_EMIT Channel().dataReceived(text);
  EXPECT_THAT(log_, ElementsAre("grüß dich"));
}

TEST_F(Shortcut, KeepsALargeTextOnceAndASmallOneAsItWas) {
  Start().complete_start({});
  QByteArray small("small");
  QByteArray large(64 << 10, 'x');
  Q_EMIT Channel().dataReceived(small);
  Q_EMIT Channel().dataReceived(large);
  EXPECT_EQ(small, "small");
  EXPECT_TRUE(large.isEmpty());
  EXPECT_EQ(log_.back().size(), std::string("message ").size() + (64 << 10));
}

TEST_F(Shortcut, IsNotHeardAfterRelease) {
  Start().complete_start({});
  table_.Release(client_);
  QByteArray late("late");
  Q_EMIT Channel().dataReceived(late);
  EXPECT_THAT(log_, ElementsAre("started 0 ", "disconnect 0 "));
}

}  // namespace
}  // namespace tarv::test

// The rules of the RPC entries that need a platform to show them: the order of their checks, the
// order of an end, chunks, and what is said of none of it.

#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>

#include <new>
#include <utility>

#include "fake_platform.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

using RuntimeManager::Error;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;
using testing::ElementsAre;
using testing::IsEmpty;

class Rules : public FakePlatform {
 protected:
  static _TARVRpcServerRef* StaleServer() {
    return reinterpret_cast<_TARVRpcServerRef*>(0xFFFFFFFFFFFF);
  }

  static TaskMessaging& Channel() { return *TaskMessaging::GetAll().at(0); }

  QuarnResult StartTask(const char* name, const char* libs) const {
    return table_.StartTask(client_, name, libs, nullptr);
  }

  void ExpectEmptyStringsToBeInvalid() const {
    EXPECT_EQ(StartTask("", "/libs"), QUARN_RESULT_INVALID_ARGUMENT);
    EXPECT_EQ(StartTask("worker", ""), QUARN_RESULT_INVALID_ARGUMENT);
    EXPECT_EQ(StartTask(nullptr, "/libs"), QUARN_RESULT_INVALID_ARGUMENT);
    EXPECT_EQ(StartTask("worker", nullptr), QUARN_RESULT_INVALID_ARGUMENT);
    EXPECT_EQ(StartTask("worker", "/libs"), QUARN_RESULT_REFUSED);
  }

  // Keeps what it hears, as "TEXT" with its chunk.
  using Heard = std::vector<std::pair<const char*, std::size_t>>;

  _TARVRpcServerRef* RunServer(Heard& heard) const {
    TARVRpcServerSlots slots{};
    slots.size = sizeof(slots);
    slots.OnMessage = [](void* list, const char* text, std::size_t chunk) {
      static_cast<Heard*>(list)->emplace_back(text, chunk);
    };
    slots.user_data = &heard;
    _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
    server_table_.Run(server, &slots);
    return server;
  }
};

// ---- The order of a client's checks

TEST_F(Rules, EmptyStringIsInvalidEvenForAClientThatStarts) {
  Start();
  ExpectEmptyStringsToBeInvalid();
}

TEST_F(Rules, EmptyStringIsInvalidEvenForAClientThatRuns) {
  Start().complete_start(Error());
  ExpectEmptyStringsToBeInvalid();
}

TEST_F(Rules, EmptyStringIsInvalidEvenForAClientWhoseStartFailed) {
  StdoutOf([&] { Start().complete_start(Error(7, "no room")); });
  ExpectEmptyStringsToBeInvalid();
}

TEST_F(Rules, SlotsOfAStartThatFailsForWantOfMemoryStayTheCallers) {
  TARVRpcClientSlots slots = MakeSlots();
  Task::IsOutOfMemory() = true;
  EXPECT_THROW(table_.StartTask(client_, "worker", "/libs", &slots), std::bad_alloc);
  Task::IsOutOfMemory() = false;
  EXPECT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_REFUSED);
  root_.Release(manager_);
  EXPECT_THAT(log_, IsEmpty());
}

// ---- The order of a server's checks

TEST_F(Rules, NullMessageToAServerThatDoesNotRunIsRefusedWithoutAnException) {
  _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
  EXPECT_EQ(server_table_.SendMessage(server, nullptr), QUARN_RESULT_REFUSED);
}

TEST_F(Rules, NullMessageToAnUnknownServerIsRefusedWithoutAnException) {
  EXPECT_EQ(server_table_.SendMessage(nullptr, nullptr), QUARN_RESULT_REFUSED);
  EXPECT_EQ(server_table_.SendMessage(StaleServer(), nullptr), QUARN_RESULT_REFUSED);
}

// ---- Chunks

TEST_F(Rules, EveryMessageToTheServerHasAChunkOfItsOwn) {
  Heard heard;
  RunServer(heard);
  Q_EMIT Channel().messageReceived({{"data", ""}});
  Q_EMIT Channel().messageReceived({{"data", "b"}});
  ASSERT_EQ(heard.size(), 2U);
  EXPECT_NE(heard[0].second, 0U);
  EXPECT_NE(heard[1].second, 0U);
  EXPECT_NE(heard[0].second, heard[1].second);
}

TEST_F(Rules, UnlockingAChunkOfTheServerEndsItAndLeavesTheOthers) {
  Heard heard;
  _TARVRpcServerRef* const server = RunServer(heard);
  Q_EMIT Channel().messageReceived({{"data", "first"}});
  Q_EMIT Channel().messageReceived({{"data", "second"}});
  ASSERT_EQ(heard.size(), 2U);
  const auto unlock = [&](std::size_t i) {
    return StdoutOf([&] { server_table_.UnlockResources(server, heard[i].second); });
  };
  EXPECT_EQ(unlock(0), "");
  EXPECT_THAT(unlock(0),
              IsLogLine("error", "Invalid chunk ID <" + std::to_string(heard[0].second) + ">"));
  EXPECT_STREQ(heard[1].first, "second");
  EXPECT_EQ(unlock(1), "");
}

TEST_F(Rules, UnlockingAtAnUnknownServerSaysNothing) {
  Heard heard;
  RunServer(heard);
  Q_EMIT Channel().messageReceived({{"data", "kept"}});
  EXPECT_EQ(StdoutOf([&] {
              server_table_.UnlockResources(StaleServer(), heard.at(0).second);
              server_table_.UnlockResources(nullptr, heard.at(0).second);
            }),
            "");
  EXPECT_STREQ(heard[0].first, "kept");
}

// ---- The order of an end

// Whether the service still has the channel: it lets all listeners go, this one too, when it does
// not.
class Ear {
 public:
  explicit Ear(TaskMessaging& channel) : channel_(channel) {
    QObject::connect(&channel, &TaskMessaging::messageReceived, [this] { heard_ = true; });
  }
  bool Hears() {
    heard_ = false;
    Q_EMIT channel_.messageReceived({});
    return heard_;
  }

 private:
  TaskMessaging& channel_;
  bool heard_ = false;
};

TEST_F(Rules, ReleasedClientDisconnectsThenClosesItsChannelAndThenStopsItsTask) {
  struct Order {
    Ear* ear = nullptr;
    Task* task = nullptr;
    std::vector<std::string>* log = nullptr;
    void Look(const std::string& moment) const {
      log->push_back(moment + (ear->Hears() ? ", channel open" : ", channel closed") +
                     (task->complete_stop ? ", task told" : ", task untold"));
    }
  } order;
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.OnDisconnect = [](void* seen, int, const char*, std::size_t) {
    static_cast<Order*>(seen)->Look("disconnect");
  };
  slots.user_data = &order;
  ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  Task& task = *Task::GetAll().at(0);
  task.complete_start(Error());
  Ear ear(Channel());
  order = {&ear, &task, &log_};
  task.on_stop = [&order] { order.Look("stop"); };
  table_.Release(client_);
  EXPECT_THAT(log_, ElementsAre("disconnect, channel open, task untold",
                                "stop, channel closed, task untold"));
}

TEST_F(Rules, ServersEndClosesItsChannelForAllAndDeletesItLater) {
  Heard heard;
  RunServer(heard);
  const auto channel = TaskMessaging::GetAll().at(0);
  Ear ear(*channel);
  ASSERT_TRUE(ear.Hears());
  root_.Release(manager_);
  ASSERT_FALSE(channel.isNull());
  EXPECT_FALSE(ear.Hears());
  Q_EMIT channel->messageReceived({{"data", "too late"}});
  EXPECT_THAT(heard, IsEmpty());
  RunDeferredDeletes();
  EXPECT_TRUE(channel.isNull());
}

// ---- What is said of none of it

TEST_F(Rules, InvalidOrSecondStartSaysNothing) {
  EXPECT_EQ(StdoutOf([&] {
              StartTask("", "/libs");
              StartTask("worker", "");
              StartTask(nullptr, nullptr);
              table_.StartTask(nullptr, "worker", "/libs", nullptr);
              StartTask("worker", "/libs");
              StartTask("worker", "/libs");
            }),
            "");
}

TEST_F(Rules, RefusedSendOfAClientSaysNothing) {
  EXPECT_EQ(StdoutOf([&] {
              EXPECT_EQ(table_.SendMessage(client_, "early"), QUARN_RESULT_REFUSED);
              EXPECT_EQ(table_.SendMessage(client_, nullptr), QUARN_RESULT_REFUSED);
              EXPECT_EQ(table_.SendMessage(nullptr, "lost"), QUARN_RESULT_REFUSED);
            }),
            "");
}

TEST_F(Rules, RefusedSendOfAServerSaysNothing) {
  EXPECT_EQ(StdoutOf([&] {
              EXPECT_EQ(server_table_.SendMessage(root_.GetRpcServer(manager_), "early"),
                        QUARN_RESULT_REFUSED);
              EXPECT_EQ(server_table_.SendMessage(StaleServer(), "lost"), QUARN_RESULT_REFUSED);
            }),
            "");
}

TEST_F(Rules, UnknownOrSecondRunSaysNothingAndOpensNoChannel) {
  _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
  server_table_.Run(server, nullptr);
  EXPECT_EQ(StdoutOf([&] {
              server_table_.Run(server, nullptr);
              server_table_.Run(StaleServer(), nullptr);
              server_table_.Run(nullptr, nullptr);
            }),
            "");
  EXPECT_EQ(TaskMessaging::GetAll().size(), 1U);
}

TEST_F(Rules, ObjectsWithoutATextAreDroppedWithoutAWord) {
  Start().complete_start(Error());
  Heard heard;
  RunServer(heard);
  EXPECT_EQ(StdoutOf([&] {
              for (const auto& channel : TaskMessaging::GetAll()) {
                Q_EMIT channel->messageReceived({{"data", 5}});
                Q_EMIT channel->messageReceived({{"text", "no data"}});
                Q_EMIT channel->messageReceived({});
              }
            }),
            "");
  EXPECT_THAT(heard, IsEmpty());
  EXPECT_THAT(log_, ElementsAre("started 0 "));
}

}  // namespace
}  // namespace tarv::test

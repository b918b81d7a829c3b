// The rules of the RPC entries that need a platform to show them: the order of their checks, the
// order of an end, chunks, and what is said of none of it.

#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>

#include <new>
#include <utility>

#include "../failing_allocation.h"
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
  static _TARVRpcServerRef* StaleServer() { return Foreign<_TARVRpcServerRef*>(); }

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

  // Whether a new client starts when memory runs out after so many allocations.
  bool StartsWithSpareMemory(int allocations) {
    _TARVRpcClientRef* const client = root_.CreateRpcClient(manager_);
    TARVRpcClientSlots slots = MakeSlots();
    const ExhaustedMemory exhausted(allocations);
    try {
      return table_.StartTask(client, "worker", "/libs", &slots) == QUARN_RESULT_SUCCESS;
    } catch (const std::bad_alloc&) {
      return false;
    }
  }

  // Starts a new client's task. The codes of its OnStarted are kept, and from the first on there is
  // memory again.
  Task& StartAnother(std::vector<int>& codes) {
    client_ = root_.CreateRpcClient(manager_);
    Task::GetAll().clear();
    TARVRpcClientSlots slots{};
    slots.size = sizeof(slots);
    slots.OnStarted = [](void* list, int code, const char*, std::size_t) {
      allocations_until_failure = -1;
      static_cast<std::vector<int>*>(list)->push_back(code);
    };
    slots.user_data = &codes;
    EXPECT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
    return *Task::GetAll().at(0);
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

TEST_F(Rules, StartWhoseChannelFindsNoMemoryFailsOnceAndStopsTheTask) {
  std::vector<int> codes;
  codes.reserve(10);
  int spare = 0;
  for (; spare < 100 && (codes.empty() || codes.front() != 0); ++spare) {
    codes.clear();
    Task& task = StartAnother(codes);
    allocations_until_failure = spare;
    task.complete_start(Error());
    allocations_until_failure = -1;
    EXPECT_EQ(codes.size(), 1U) << spare;
    if (codes.front() != 0) {
      EXPECT_EQ(codes.front(), -32603);
      EXPECT_TRUE(task.complete_stop) << spare;
      EXPECT_EQ(table_.SendMessage(client_, "late"), QUARN_RESULT_REFUSED) << spare;
    }
  }
  EXPECT_GT(spare, 1);
  EXPECT_LT(spare, 100);
}

TEST_F(Rules, SlotsStayTheCallersWhereverInAStartMemoryRunsOut) {
  int spare = 0;
  while (spare < 100 && !StartsWithSpareMemory(spare)) {
    ++spare;
  }
  EXPECT_GT(spare, 1);
  EXPECT_LT(spare, 100);
  root_.Release(manager_);
  EXPECT_THAT(log_, ElementsAre("released"));
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

// ---- The order of calls

TEST_F(Rules, TaskIsMadeWithItsSocketThenItsArgumentsAndThenStarted) {
  ASSERT_EQ(StartTask("wörker", "/bücher/libs"), QUARN_RESULT_SUCCESS);
  EXPECT_THAT(TakeJournal(), ElementsAre("Task wörker", "withIpcSocket true",
                                         "withArguments --libs-path|/bücher/libs", "start wörker"));
}

// What was there as OnStarted was called.
struct AtStart {
  const CaptureStdout* output = nullptr;
  std::string logged;
  std::vector<std::string> messages;
};

TARVRpcClientSlots LookingSlots(AtStart& seen) {
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.OnStarted = [](void* at_start, int code, const char*, std::size_t) {
    auto* const self = static_cast<AtStart*>(at_start);
    self->logged = self->output->GetText();
    if (code == 0) {
      Q_EMIT TaskMessaging::GetAll().at(0)->messageReceived({{"data", "at once"}});
    }
  };
  slots.OnMessage = [](void* at_start, const char* text, std::size_t) {
    static_cast<AtStart*>(at_start)->messages.emplace_back(text);
  };
  slots.user_data = &seen;
  return slots;
}

TEST_F(Rules, FailedStartIsLoggedBeforeOnStartedIsCalled) {
  AtStart seen;
  TARVRpcClientSlots slots = LookingSlots(seen);
  ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  {
    const CaptureStdout output;
    seen.output = &output;
    Task::GetAll().at(0)->complete_start(Error(7, "no room"));
  }
  EXPECT_THAT(seen.logged, IsLogLine("info", "[ta-rv] on started call error: no room"));
}

TEST_F(Rules, ClientHearsItsChannelBeforeOnStartedReturns) {
  AtStart seen;
  TARVRpcClientSlots slots = LookingSlots(seen);
  ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  {
    const CaptureStdout output;
    seen.output = &output;
    Task::GetAll().at(0)->complete_start(Error());
  }
  EXPECT_THAT(seen.messages, ElementsAre("at once"));
}

TEST_F(Rules, ServerHearsItsChannelBeforeOnStartedReturns) {
  TARVRpcServerSlots slots{};
  slots.size = sizeof(slots);
  slots.OnStarted = [](void*, int, const char*, std::size_t) {
    Q_EMIT Channel().messageReceived({{"data", "at once"}});
  };
  slots.OnMessage = [](void* log, const char* text, std::size_t) { Log(log, text); };
  slots.user_data = &log_;
  server_table_.Run(root_.GetRpcServer(manager_), &slots);
  EXPECT_THAT(log_, ElementsAre("at once"));
}

// ---- Null is refused, empty is not

TEST_F(Rules, EmptyMessageIsSentByAClientAndByAServer) {
  Start().complete_start(Error());
  EXPECT_EQ(table_.SendMessage(client_, ""), QUARN_RESULT_SUCCESS);
  _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
  server_table_.Run(server, nullptr);
  EXPECT_EQ(server_table_.SendMessage(server, ""), QUARN_RESULT_SUCCESS);
  for (const auto& channel : TaskMessaging::GetAll()) {
    EXPECT_THAT(channel->sent, ElementsAre(QJsonObject{{"data", ""}}));
  }
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

// The client's entries against real task processes.

#include <RuntimeManager/Error.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "kit/service.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class RpcClient : public ServiceTest {
 protected:
  static _TARVRpcClientRef* Stale() { return reinterpret_cast<_TARVRpcClientRef*>(0xFFFFFFFFFFFF); }

  QuarnResult Start(_TARVRpcClientRef* client, const char* name, const char* libs) const {
    return tables_.client.StartTask(client, name, libs, nullptr);
  }
};

TEST_F(RpcClient, StartReportsItselfOnceWithoutAChunk) {
  Client& client = NewRunningClient("echo");
  EXPECT_EQ(client.Count(Event::kStarted), 1U);
  EXPECT_EQ(client.Last(Event::kStarted).code, 0);
  EXPECT_EQ(client.Last(Event::kStarted).text, "");
  EXPECT_EQ(client.Last(Event::kStarted).chunk, 0U);
}

TEST_F(RpcClient, StartNeverReportsFromInsideTheCall) {
  Client& client = NewClient();
  ASSERT_EQ(client.Start("echo"), QUARN_RESULT_SUCCESS);
  EXPECT_THAT(client.events, IsEmpty());
  EXPECT_TRUE(client.WaitForStart());
}

TEST_F(RpcClient, TaskIsToldTheFolderOfTheLibraries) {
  Client& client = NewClient();
  ASSERT_EQ(client.Start("echo", "/opt/äpp/libs"), QUARN_RESULT_SUCCESS);
  ASSERT_TRUE(client.WaitForStart());
  client.Send("!arguments");
  ASSERT_TRUE(client.WaitForMessages(1));
  EXPECT_THAT(client.Messages(), ElementsAre("--libs-path\n/opt/äpp/libs"));
}

TEST_F(RpcClient, EmptyTaskNameIsInvalidAndLeavesTheClientIdle) {
  Client& client = NewClient();
  EXPECT_EQ(client.Start(""), QUARN_RESULT_INVALID_ARGUMENT);
  EXPECT_EQ(client.Start("echo"), QUARN_RESULT_SUCCESS);
  EXPECT_TRUE(client.WaitForStart());
}

TEST_F(RpcClient, EmptyLibrariesPathIsInvalidAndLeavesTheClientIdle) {
  Client& client = NewClient();
  EXPECT_EQ(client.Start("echo", ""), QUARN_RESULT_INVALID_ARGUMENT);
  EXPECT_EQ(client.Start("echo"), QUARN_RESULT_SUCCESS);
  EXPECT_TRUE(client.WaitForStart());
}

TEST_F(RpcClient, NullTaskNameOrLibrariesPathIsInvalid) {
  Client& client = NewClient();
  EXPECT_EQ(Start(client.handle, nullptr, "/libs"), QUARN_RESULT_INVALID_ARGUMENT);
  EXPECT_EQ(Start(client.handle, "echo", nullptr), QUARN_RESULT_INVALID_ARGUMENT);
}

TEST_F(RpcClient, StartOfAnUnknownHandleIsInvalid) {
  EXPECT_EQ(Start(nullptr, "echo", "/libs"), QUARN_RESULT_INVALID_ARGUMENT);
  EXPECT_EQ(Start(Stale(), "echo", "/libs"), QUARN_RESULT_INVALID_ARGUMENT);
}

TEST_F(RpcClient, SlotsOfARefusedStartAreNotTaken) {
  Client& client = NewClient();
  client.Start("");
  tables_.root.Release(manager_);
  EXPECT_THAT(client.events, IsEmpty());
}

TEST_F(RpcClient, SecondStartWhileStartingIsRefusedWithoutACallback) {
  Client& client = NewClient();
  ASSERT_EQ(client.Start("echo"), QUARN_RESULT_SUCCESS);
  EXPECT_EQ(client.Start("echo"), QUARN_RESULT_REFUSED);
  ASSERT_TRUE(client.WaitForStart());
  EXPECT_EQ(client.events.size(), 1U);
}

TEST_F(RpcClient, SecondStartWhileRunningIsRefusedWithoutACallback) {
  Client& client = NewRunningClient("echo");
  EXPECT_EQ(client.Start("echo"), QUARN_RESULT_REFUSED);
  RunEvents(std::chrono::milliseconds(100));
  EXPECT_EQ(client.events.size(), 1U);
}

TEST_F(RpcClient, SecondStartAfterAFailedOneIsRefusedWithoutACallback) {
  Client& client = NewClient();
  client.Start("no-such-task");
  ASSERT_TRUE(client.WaitFor(Event::kStarted));
  EXPECT_EQ(client.Start("echo"), QUARN_RESULT_REFUSED);
  RunEvents(std::chrono::milliseconds(100));
  EXPECT_EQ(client.events.size(), 1U);
}

TEST_F(RpcClient, FailedStartReportsOnceWithTheReasonInAChunkAndALine) {
  Client& client = NewClient();
  client.unlock = false;
  const std::string output = StdoutOf([&client] {
    client.Start("no-such-task");
    client.WaitFor(Event::kStarted);
    RunEvents(std::chrono::milliseconds(100));
  });
  ASSERT_EQ(client.events.size(), 1U);
  const Event& started = client.Last(Event::kStarted);
  EXPECT_EQ(started.code, -32603);
  EXPECT_THAT(started.text, HasSubstr("no-such-task"));
  EXPECT_NE(started.chunk, 0U);
  EXPECT_THAT(output, IsLogLine("info", "[ta-rv] on started call error: " + started.text));
  EXPECT_EQ(client.Send("nobody there"), QUARN_RESULT_REFUSED);
}

TEST_F(RpcClient, ClientOfAFailedStartStaysUntilTheManagersRelease) {
  Client& client = NewClient();
  client.Start("no-such-task");
  ASSERT_TRUE(client.WaitFor(Event::kStarted));
  client.Release();
  RunEvents(std::chrono::milliseconds(50));
  EXPECT_EQ(client.Count(Event::kReleased), 0U);
  tables_.root.Release(manager_);
  EXPECT_EQ(client.Count(Event::kReleased), 1U);
  EXPECT_EQ(client.Count(Event::kDisconnect), 0U);
}

TEST_F(RpcClient, SendIsRefusedBeforeTheTaskRuns) {
  Client& client = NewClient();
  EXPECT_EQ(client.Send("early"), QUARN_RESULT_REFUSED);
  client.Start("echo");
  EXPECT_EQ(client.Send("early"), QUARN_RESULT_REFUSED);
  ASSERT_TRUE(client.WaitForStart());
  EXPECT_EQ(client.Send("in time"), QUARN_RESULT_SUCCESS);
  ASSERT_TRUE(client.WaitForMessages(1));
  EXPECT_THAT(client.Messages(), ElementsAre("in time"));
}

TEST_F(RpcClient, SendOfNullOrToAnUnknownHandleIsRefused) {
  Client& client = NewRunningClient("echo");
  EXPECT_EQ(tables_.client.SendMessage(client.handle, nullptr), QUARN_RESULT_REFUSED);
  EXPECT_EQ(tables_.client.SendMessage(nullptr, "lost"), QUARN_RESULT_REFUSED);
  EXPECT_EQ(tables_.client.SendMessage(Stale(), "lost"), QUARN_RESULT_REFUSED);
}

TEST_F(RpcClient, SendFromInsideOnStartedReachesTheTask) {
  Client& client = NewClient();
  client.on_event = [&client](const Event& event) {
    if (event.kind == Event::kStarted) {
      client.Send("first");
    }
  };
  client.Start("echo");
  ASSERT_TRUE(client.WaitForMessages(1));
  EXPECT_THAT(client.Messages(), ElementsAre("first"));
}

TEST_F(RpcClient, MessagesKeepTheirOrderAndTheirBytes) {
  Client& client = NewRunningClient("echo");
  const std::vector<std::string> texts = {"", "a\"b\\c\n\t\x01\x7f", "Grüße, 世界 🚀",
                                          "{\"data\":1}", std::string(100'000, 'x')};
  for (const std::string& text : texts) {
    ASSERT_EQ(client.Send(text), QUARN_RESULT_SUCCESS);
  }
  ASSERT_TRUE(client.WaitForMessages(texts.size()));
  EXPECT_EQ(client.Messages(), texts);
}

TEST_F(RpcClient, TaskWrittenInPythonSpeaksWithTheLibrary) {
  Client& client = NewRunningClient("lines.py");
  client.Send("stressed");
  client.Send("arguments");
  ASSERT_TRUE(client.WaitForMessages(2));
  EXPECT_THAT(client.Messages(), ElementsAre("desserts", "--libs-path /libraries"));
}

TEST_F(RpcClient, ObjectsWithoutATextAreDroppedAndAnEmptyTextIsNot) {
  Client& client = NewRunningClient("lines.py");
  client.Send("odd ones");
  client.Send("end");
  ASSERT_TRUE(client.WaitForMessages(2));
  EXPECT_THAT(client.Messages(), ElementsAre("", "dne"));
  EXPECT_NE(client.events[1].chunk, 0U);
}

TEST_F(RpcClient, EveryMessageHasAChunkOfItsOwn) {
  Client& client = NewRunningClient("echo");
  client.Send("a");
  client.Send("b");
  ASSERT_TRUE(client.WaitForMessages(2));
  EXPECT_NE(client.events[1].chunk, 0U);
  EXPECT_NE(client.events[1].chunk, client.events[2].chunk);
}

// Keeps the pointers that it gets, as a slow receiver does.
struct Hoarder {
  static void OnMessage(void* self, const char* text, std::size_t chunk) {
    static_cast<Hoarder*>(self)->texts.emplace_back(text, chunk);
  }
  static void OnStarted(void* self, int, const char*, std::size_t) {
    static_cast<Hoarder*>(self)->started = true;
  }
  bool started = false;
  std::vector<std::pair<const char*, std::size_t>> texts;
};

TEST_F(RpcClient, TextsStayValidUntilTheirOwnChunkIsUnlocked) {
  Hoarder hoarder;
  TARVRpcClientSlots callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.OnStarted = &Hoarder::OnStarted;
  callbacks.OnMessage = &Hoarder::OnMessage;
  callbacks.user_data = &hoarder;
  _TARVRpcClientRef* const client = tables_.root.CreateRpcClient(manager_);
  tables_.client.StartTask(client, "echo", "/libs", &callbacks);
  ASSERT_TRUE(WaitUntil([&hoarder] { return hoarder.started; }));
  tables_.client.SendMessage(client, "first");
  tables_.client.SendMessage(client, "second");
  ASSERT_TRUE(WaitUntil([&hoarder] { return hoarder.texts.size() == 2; }));
  const auto unlock_first = [&] {
    tables_.client.UnlockResources(client, hoarder.texts[0].second);
  };
  EXPECT_EQ(StdoutOf(unlock_first), "");
  EXPECT_STREQ(hoarder.texts[1].first, "second");
  EXPECT_THAT(
      StdoutOf(unlock_first),
      IsLogLine("error", "Invalid chunk ID <" + std::to_string(hoarder.texts[0].second) + ">"));
  tables_.client.UnlockResources(client, hoarder.texts[1].second);
}

TEST_F(RpcClient, UnlockingChunkZeroDoesNothingAndAnUnknownOneSaysSo) {
  Client& client = NewRunningClient("echo");
  EXPECT_EQ(StdoutOf([&] { tables_.client.UnlockResources(client.handle, 0); }), "");
  EXPECT_EQ(StdoutOf([&] { tables_.client.UnlockResources(Stale(), 7); }), "");
  EXPECT_THAT(StdoutOf([&] { tables_.client.UnlockResources(client.handle, 123456789); }),
              IsLogLine("error", "Invalid chunk ID <123456789>"));
}

// Standard output goes to a device that takes nothing, and its stream is to throw.
class FailingOutput {
 public:
  FailingOutput() : full_(open("/dev/full", O_WRONLY | O_CLOEXEC)) {
    redirection_.emplace(STDOUT_FILENO, full_);
    std::cout.exceptions(std::ios_base::badbit | std::ios_base::failbit);
  }
  ~FailingOutput() {
    std::cout.exceptions(std::ios_base::goodbit);
    redirection_.reset();
    close(full_);
  }
  FailingOutput(const FailingOutput&) = delete;
  FailingOutput& operator=(const FailingOutput&) = delete;

 private:
  int full_;
  std::optional<Redirection> redirection_;
};

TEST_F(RpcClient, NoEntryThrowsBecauseItsLineCannotBeWritten) {
  Client& client = NewRunningClient("echo");
  const FailingOutput output;
  EXPECT_NO_THROW(tables_.client.UnlockResources(client.handle, 123456789));
  EXPECT_NO_THROW(TARVProcTableLoad(nullptr, 0));
  EXPECT_NO_THROW(tables_.root.RpcClientProcTableLoad(nullptr, 0));
  EXPECT_NO_THROW(tables_.root.CreateRpcClient(nullptr));
  EXPECT_NO_THROW(tables_.root.GetIntentManager(nullptr));
}

TEST_F(RpcClient, ReleaseDisconnectsOnceStopsTheTaskAndThenReleasesTheSlots) {
  Client& client = NewRunningClient("echo");
  ASSERT_EQ(Children().size(), 1U);
  client.Release();
  EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
  EXPECT_EQ(client.Last(Event::kDisconnect).code, 0);
  EXPECT_EQ(client.Last(Event::kDisconnect).text, "");
  EXPECT_EQ(client.Last(Event::kDisconnect).chunk, 0U);
  EXPECT_EQ(client.Count(Event::kReleased), 0U);
  ASSERT_TRUE(client.WaitFor(Event::kReleased));
  EXPECT_THAT(Children(), IsEmpty());
  EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
}

TEST_F(RpcClient, HandleFailsAtOnceAfterRelease) {
  Client& client = NewRunningClient("echo");
  client.Release();
  EXPECT_EQ(client.Send("lost"), QUARN_RESULT_REFUSED);
  EXPECT_EQ(client.Start("echo"), QUARN_RESULT_INVALID_ARGUMENT);
  client.Release();
  EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
}

TEST_F(RpcClient, MessagesOnTheirWayAtReleaseAreDropped) {
  Client& client = NewRunningClient("echo");
  for (int i = 0; i < 100; ++i) {
    client.Send("echo me");
  }
  client.Release();
  ASSERT_TRUE(client.WaitFor(Event::kReleased));
  EXPECT_EQ(client.events.back().kind, Event::kReleased);
  EXPECT_EQ(client.events[client.events.size() - 2].kind, Event::kDisconnect);
}

TEST_F(RpcClient, ReleaseOfAnIdleOrUnknownClientCallsNothing) {
  Client& client = NewClient();
  client.Release();
  tables_.client.Release(nullptr);
  tables_.client.Release(Stale());
  EXPECT_THAT(client.events, IsEmpty());
  EXPECT_EQ(client.Start("echo"), QUARN_RESULT_INVALID_ARGUMENT);
}

TEST_F(RpcClient, ReleaseWhileStartingSilencesTheStart) {
  Client& client = NewClient();
  client.Start("echo");
  client.Release();
  RunEvents(std::chrono::milliseconds(300));
  EXPECT_THAT(client.events, IsEmpty());
  tables_.root.Release(manager_);
  EXPECT_EQ(client.events.size(), 1U);
  EXPECT_EQ(client.Count(Event::kReleased), 1U);
}

TEST_F(RpcClient, ReleaseStopsATaskThatIgnoresThePoliteSignal) {
  Client& client = NewRunningClient("echo");
  client.Send("!hang");
  ASSERT_TRUE(client.WaitForMessages(1));
  client.Release();
  EXPECT_TRUE(client.WaitFor(Event::kReleased));
  EXPECT_THAT(Children(), IsEmpty());
}

TEST_F(RpcClient, TaskThatExitsByItselfIsReportedWithItsStatusAndLastWords) {
  Client& client = NewRunningClient("echo");
  client.unlock = false;
  client.Send("!exit 3");
  ASSERT_TRUE(client.WaitFor(Event::kReleased));
  EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
  const Event& lost = client.Last(Event::kDisconnect);
  EXPECT_EQ(lost.code, RuntimeManager::Error::kTaskExited);
  EXPECT_NE(lost.chunk, 0U);
  EXPECT_THAT(lost.text, HasSubstr("echo"));
  EXPECT_THAT(lost.text, HasSubstr("status 3"));
  EXPECT_THAT(lost.text, HasSubstr("leaving as told"));
}

TEST_F(RpcClient, TaskKilledWithAHundredMessagesInFlightDeliversThemAndDisconnectsOnce) {
  Client& client = NewRunningClient("echo");
  client.Send("!burst-and-die");
  ASSERT_TRUE(client.WaitFor(Event::kReleased));
  EXPECT_EQ(client.Count(Event::kMessage), 100U);
  EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
  EXPECT_THAT(client.Last(Event::kDisconnect).text, HasSubstr("signal 9"));
  EXPECT_EQ(client.Send("too late"), QUARN_RESULT_REFUSED);
}

TEST_F(RpcClient, TaskKilledFromOutsideWithAHundredRequestsOnTheirWayDisconnectsOnce) {
  Client& client = NewRunningClient("echo");
  for (int i = 0; i < 100; ++i) {
    client.Send("request " + std::to_string(i));
  }
  ASSERT_EQ(kill(Children().at(0), SIGKILL), 0);
  ASSERT_TRUE(client.WaitFor(Event::kReleased));
  RunEvents(std::chrono::milliseconds(300));
  EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
  EXPECT_EQ(client.Last(Event::kDisconnect).code, RuntimeManager::Error::kTaskKilled);
}

TEST_F(RpcClient, ReleaseAfterTheTaskEndedFindsNothingToDo) {
  Client& client = NewRunningClient("echo");
  client.Send("!exit 0");
  ASSERT_TRUE(client.WaitFor(Event::kReleased));
  client.Release();
  RunEvents(std::chrono::milliseconds(50));
  EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
  EXPECT_EQ(client.Count(Event::kReleased), 1U);
}

TEST_F(RpcClient, ReleaseFromInsideOnDisconnectOfALostTaskIsHarmless) {
  Client& client = NewRunningClient("echo");
  client.on_event = [&client](const Event& event) {
    if (event.kind == Event::kDisconnect) {
      client.Release();
    }
  };
  client.Send("!exit 0");
  ASSERT_TRUE(client.WaitFor(Event::kReleased));
  EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
}

TEST_F(RpcClient, MayBeReleasedFromInsideEachOfItsCallbacks) {
  for (const Event::Kind kind : {Event::kStarted, Event::kMessage, Event::kDisconnect}) {
    Client& client = NewClient();
    client.on_event = [&client, kind](const Event& event) {
      if (event.kind == Event::kStarted) {
        client.Send("go");
      }
      if (event.kind == kind || event.kind == Event::kMessage) {
        client.Release();
      }
    };
    client.Start("echo");
    EXPECT_TRUE(client.WaitFor(Event::kReleased));
    EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
  }
}

TEST_F(RpcClient, MayDieWithItsManagerInsideEachOfItsCallbacks) {
  for (const Event::Kind kind : {Event::kStarted, Event::kMessage, Event::kDisconnect}) {
    Client& client = NewClient();
    client.on_event = [this, &client, kind](const Event& event) {
      if (event.kind == Event::kStarted) {
        client.Send("go");
      }
      if (event.kind == kind) {
        tables_.root.Release(manager_);
      } else if (event.kind == Event::kMessage) {
        client.Release();
      }
    };
    client.Start("echo");
    EXPECT_TRUE(client.WaitFor(Event::kReleased));
    EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
  }
}

TEST_F(RpcClient, ReleaseOfItsManagerWhileItStopsIsHarmless) {
  Client& client = NewRunningClient("echo");
  client.Release();
  tables_.root.Release(manager_);
  EXPECT_EQ(client.Count(Event::kReleased), 1U);
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
}

TEST_F(RpcClient, ExceptionOutOfOnDisconnectReachesTheCallerAndTheTaskStillStops) {
  Client& client = NewRunningClient("echo");
  client.on_event = [](const Event& event) {
    if (event.kind == Event::kDisconnect) {
      throw std::runtime_error("not now");
    }
  };
  EXPECT_THROW(client.Release(), std::runtime_error);
  EXPECT_TRUE(client.WaitFor(Event::kReleased));
  EXPECT_THAT(Children(), IsEmpty());
}

TEST_F(RpcClient, WithoutSlotsATaskStartsAndStopsAllTheSame) {
  _TARVRpcClientRef* const client = tables_.root.CreateRpcClient(manager_);
  ASSERT_EQ(Start(client, "echo", "/libs"), QUARN_RESULT_SUCCESS);
  ASSERT_TRUE(WaitUntil(
      [&] { return tables_.client.SendMessage(client, "hello") == QUARN_RESULT_SUCCESS; }));
  tables_.client.Release(client);
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
}

TEST_F(RpcClient, FieldsBeyondTheSizeOfTheSlotsAreNotCalled) {
  for (std::size_t size = 0; size <= sizeof(TARVRpcClientSlots); size += 8) {
    SCOPED_TRACE("size " + std::to_string(size));
    Client& client = NewClient();
    TARVRpcClientSlots callbacks = client.MakeSlots();
    callbacks.size = size;
    // Without user_data the recording callbacks have nowhere to write: nobody may call them.
    if (size < sizeof(TARVRpcClientSlots)) {
      callbacks.OnStarted = size < 16 ? callbacks.OnStarted : nullptr;
      callbacks.OnDisconnect = size < 24 ? callbacks.OnDisconnect : nullptr;
      callbacks.OnMessage = size < 32 ? callbacks.OnMessage : nullptr;
      callbacks.Release = size < 40 ? callbacks.Release : nullptr;
    }
    ASSERT_EQ(tables_.client.StartTask(client.handle, "echo", "/libs", &callbacks),
              QUARN_RESULT_SUCCESS);
    ASSERT_TRUE(WaitUntil([&client] { return client.Send("go") == QUARN_RESULT_SUCCESS; }));
    client.Release();
    ASSERT_TRUE(WaitUntil([] { return Children().empty(); }));
    EXPECT_EQ(client.Count(Event::kStarted), size == sizeof(TARVRpcClientSlots) ? 1U : 0U);
  }
}

}  // namespace
}  // namespace tarv::test

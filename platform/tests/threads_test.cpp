// Messages that several threads send, and when what is held back leaves.
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QTimer>
#include <atomic>
#include <thread>

#include "crowd.h"
#include "kit.h"

namespace kit {
namespace {

using AnyThread = ServerEnd;

TEST_F(AnyThread, MaySendBothWaysAtOnce) {
  AddHelperTask("crowd");
  Task task("crowd");
  task.withIpcSocket(true);
  task.withArguments({"crowd"});
  ExpectStarts(task);
  TaskMessaging messaging(task.socketPath());
  Tally tally;
  tally.Watch(&messaging);
  Outcomes ended;
  QObject::connect(&messaging, &TaskMessaging::disconnected, ended.Recorder());
  Crowd crowd(&messaging);
  EXPECT_TRUE(RunUntil([&tally] { return tally.IsWhole(); }));
  crowd.Join();
  EXPECT_EQ(tally.Faults().toStdString(), "");
  // The task tells what it has got when that is everything.
  EXPECT_TRUE(WaitForFile(PathOf("tally"), "\n"));
  EXPECT_EQ(ReadFile(PathOf("tally")).toStdString(), "50000 \n");
  EXPECT_FALSE(ended.Arrived());
}

TEST_F(AnyThread, LosesNothingToASlowReader) {
  constexpr int kTexts = 500;
  TaskMessaging messaging(listening_);
  const int peer = Connect();
  Tally tally;
  std::atomic<bool> is_read{false};
  std::thread reader([&tally, &is_read, peer] {
    QByteArray line(1, '\n');
    while (!tally.IsWhole(kTexts) && !line.isEmpty()) {
      line.clear();
      char byte = 0;
      while (::recv(peer, &byte, 1, 0) == 1 && byte != '\n') {
        line += byte;
      }
      tally.Add(QJsonDocument::fromJson(line).object()["data"].toString().toUtf8());
    }
    is_read = true;
  });
  Crowd crowd(&messaging, kTexts);
  EXPECT_TRUE(RunUntil([&is_read] { return is_read.load(); }));
  crowd.Join();
  reader.join();
  EXPECT_TRUE(tally.IsWhole(kTexts)) << tally.Count();
  EXPECT_EQ(tally.Faults().toStdString(), "");
  ::close(peer);
}

TEST_F(AnyThread, GoesOnSendingWhenTheTaskIsKilled) {
  AddPythonTask("killed",
                "c, _ = server.accept()\nfor i in range(50): c.recv(100000)\n"
                "os.kill(os.getpid(), 9)");
  for (int round = 0; round < 5; ++round) {
    Task task("killed");
    task.withIpcSocket(true);
    ExpectStarts(task);
    TaskMessaging messaging(task.socketPath());
    Inbox inbox(&messaging);
    Crowd crowd(&messaging, 1 << 20);
    EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kTaskKilled);
    crowd.Stop();
    RunFor(20);
    EXPECT_EQ(inbox.disconnects.errors.size(), 1U);
  }
}

TEST_F(AnyThread, KeepsToTheBoundOfTheQueue) {
  const ScopedVariable queue("RUNTIME_MANAGER_MAX_QUEUE", "1000000");
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int peer = Connect();
  Crowd crowd(&messaging, 1 << 20);
  EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kQueueFull);
  crowd.Stop();
  ::close(peer);
}

TEST_F(AnyThread, SendsWhileTheThreadOfTheObjectIsBusy) {
  TaskMessaging messaging(listening_);
  const int peer = Connect();
  SendLine(peer, "{}");
  Inbox inbox(&messaging);
  ASSERT_TRUE(inbox.WaitFor(1));
  // No event loop runs here.
  std::thread worker([&messaging] { messaging.sendData("from a worker"); });
  pollfd readable{peer, POLLIN, 0};
  EXPECT_EQ(::poll(&readable, 1, 20000), 1);
  worker.join();
  EXPECT_EQ(ReadLineFrom(peer), R"({"data":"from a worker"})");
  ::close(peer);
}

// Messages that come in one read are answered together.
class HeldAnswer : public ServerEnd {
 protected:
  // Runs `second` and `third` as the handlers behind one that has sent "early". Whether the third
  // has come to its end.
  bool Run(TaskMessaging* messaging, int peer, const std::function<void()>& second,
           const std::function<void()>& third) {
    int done = 0;
    QObject::connect(messaging, &TaskMessaging::messageReceived, [=, &done] {
      const int number = done++;
      if (number == 0) {
        messaging->sendData("early");
      } else {
        number == 1 ? second() : third();
      }
    });
    SendLine(peer, "{}\n{}\n{}");
    return RunUntil([&done] { return done == 3; });
  }
  static bool HasCome(int peer, int limit_ms) {
    pollfd readable{peer, POLLIN, 0};
    return ::poll(&readable, 1, limit_ms) == 1;
  }
};

TEST_F(HeldAnswer, WaitsForOneRunningHandlerAtMost) {
  TaskMessaging messaging(listening_);
  const int peer = Connect();
  bool has_come = false;
  EXPECT_TRUE(Run(
      &messaging, peer, [] { ::usleep(1000); },
      [&has_come, peer] { has_come = HasCome(peer, 20000); }));
  EXPECT_TRUE(has_come);
  EXPECT_EQ(ReadLineFrom(peer), R"({"data":"early"})");
  ::close(peer);
}

TEST_F(HeldAnswer, IsTakenAlongByWhatAnotherThreadSends) {
  TaskMessaging messaging(listening_);
  const int peer = Connect();
  bool has_come = false;
  const auto second = [&messaging, &has_come, peer] {
    std::thread([&messaging] { messaging.sendData("other"); }).join();
    has_come = HasCome(peer, 20000);
  };
  EXPECT_TRUE(Run(&messaging, peer, second, [] {}));
  EXPECT_TRUE(has_come);
  EXPECT_EQ(ReadLineFrom(peer), R"({"data":"early"})");
  EXPECT_EQ(ReadLineFrom(peer), R"({"data":"other"})");
  ::close(peer);
}

TEST_F(HeldAnswer, LeavesBeforeAnEventLoopThatAHandlerRuns) {
  TaskMessaging messaging(listening_);
  const int peer = Connect();
  bool has_third = false;
  bool has_come = false;
  const auto second = [&has_third] { RunUntil([&has_third] { return has_third; }); };
  // The loop delivers this one, and would send what is held only afterwards.
  const auto third = [&has_third, &has_come, peer] {
    has_third = true;
    has_come = HasCome(peer, 0);
  };
  EXPECT_TRUE(Run(&messaging, peer, second, third));
  EXPECT_TRUE(has_come);
  ::close(peer);
}

// Most of them come in one read.
TEST_F(ServerEnd, LeavesTimeForTimersDuringAFloodOfSlowHandlers) {
  constexpr int kMessages = 1000;
  TaskMessaging messaging(listening_);
  int messages = 0;
  int ticks = 0;
  QObject::connect(&messaging, &TaskMessaging::messageReceived, [&messages] {
    ++messages;
    ::usleep(1000);
  });
  QTimer timer;
  QObject::connect(&timer, &QTimer::timeout, [&ticks] { ++ticks; });
  timer.start(1);
  const int peer = Connect();
  SendLine(peer, QByteArray("{}\n").repeated(kMessages).chopped(1));
  EXPECT_TRUE(RunUntil([&messages] { return messages > 0; }));
  ticks = 0;
  EXPECT_TRUE(RunUntil([&messages] { return messages == kMessages; }));
  // A turn is 10 ms of handlers, of which there is a second.
  EXPECT_GE(ticks, 20);
  ::close(peer);
}

}  // namespace
}  // namespace kit

// Messages that several threads send, and when what is held back leaves.
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QtCore/QEventLoop>
#include <QtCore/QJsonDocument>
#include <QtCore/QTimer>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "crowd.h"
#include "kit.h"

namespace kit {
namespace {

using AnyThread = ServerEnd;

// More than any of these tests lets through, and little enough to wait in memory.
constexpr Share kFlood{40'000, 50, 20'000};

// Reads what a crowd sends, on a thread of its own, `piece` bytes at a time.
class CrowdReader {
 public:
  CrowdReader(int peer, const Share& share, std::size_t piece)
      : peer_(peer), tally_(share), thread_([this, piece] { Read(piece); }) {}
  ~CrowdReader() { Finish(); }
  CrowdReader(const CrowdReader&) = delete;
  CrowdReader& operator=(const CrowdReader&) = delete;

  bool WaitUntilDone() const {
    return RunUntilStuck([this] { return done_.load(); }, [this] { return bytes_.load(); });
  }
  // How many messages came, and what was wrong with them. Ends the connection.
  std::string Finish() {
    if (thread_.joinable()) {
      ::shutdown(peer_, SHUT_RDWR);
      thread_.join();
    }
    return (QByteArray::number(tally_.Count()) + ' ' + tally_.Faults()).toStdString();
  }

 private:
  void Read(std::size_t piece) {
    std::vector<char> bytes(piece);
    QByteArray line;
    ssize_t size = 0;
    while (!tally_.IsWhole() && (size = ::recv(peer_, bytes.data(), piece, 0)) > 0) {
      bytes_ += static_cast<int>(size);
      line.append(bytes.data(), static_cast<int>(size));
      for (int end = line.indexOf('\n'); end >= 0; end = line.indexOf('\n')) {
        tally_.Add(QJsonDocument::fromJson(line.left(end)).object()["data"].toString().toUtf8());
        line.remove(0, end + 1);
      }
    }
    done_ = true;
  }

  const int peer_;
  Tally tally_;
  std::atomic<int> bytes_{0};
  std::atomic<bool> done_{false};
  std::thread thread_;
};

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
  EXPECT_TRUE(
      RunUntilStuck([&tally] { return tally.IsWhole(); }, [&tally] { return tally.Count(); }));
  crowd.Join();
  EXPECT_EQ(tally.Faults().toStdString(), "");
  // The task tells what it has got when that is everything.
  EXPECT_TRUE(WaitForFile(PathOf("tally"), "\n"));
  EXPECT_EQ(ReadFile(PathOf("tally")).toStdString(), std::to_string(TextsEachWay()) + " \n");
  EXPECT_FALSE(ended.Arrived());
}

TEST_F(AnyThread, LosesNothingToASlowReader) {
  Share share;
  share.texts = 500;
  TaskMessaging messaging(listening_);
  const int peer = Connect();
  CrowdReader reader(peer, share, 16);
  Crowd crowd(&messaging, share);
  EXPECT_TRUE(reader.WaitUntilDone());
  crowd.Join();
  EXPECT_EQ(reader.Finish(), "4000 ");
  ::close(peer);
}

// Each takes more than one system call, between which another thread must not write.
TEST_F(AnyThread, TearsNoLongMessage) {
  const Share share{30, 1, 300'000};
  TaskMessaging messaging(listening_);
  const int peer = Connect();
  CrowdReader reader(peer, share, 1 << 16);
  Crowd crowd(&messaging, share);
  EXPECT_TRUE(reader.WaitUntilDone());
  crowd.Join();
  EXPECT_EQ(reader.Finish(), "240 ");
  ::close(peer);
}

// The helper has more to send than the socket holds, and leaves by exit(), which waits for the
// peer. Meanwhile a message over the bound ends the connection from another thread. What the helper
// frees is overwritten.
TEST_F(AnyThread, MayEndTheConnectionWhileAnotherWrites) {
  const ScopedVariable bound("RUNTIME_MANAGER_MAX_MESSAGE", "200000");
  const ScopedVariable scribble("MALLOC_PERTURB_", "85");
  const ScopedVariable keep("MALLOC_TRIM_THRESHOLD_", "1000000000");
  ::fcntl(listening_, F_SETFD, 0);
  Process helper(HELPER, {"leave-while-writing", QString::number(listening_), "end"});
  ::fcntl(listening_, F_SETFD, FD_CLOEXEC);
  const int peer = Connect();
  SendLine(peer, "{}");
  ASSERT_TRUE(WaitForFile(PathOf("done"), "\n"));
  const QByteArray all = ReadToEnd(peer);
  QByteArray sent;
  for (int i = 0; i < 20; ++i) {
    sent += "{\"data\":\"" + QByteArray(100'000, static_cast<char>('a' + i)) + "\"}\n";
  }
  EXPECT_GT(all.size(), 100'000);
  EXPECT_TRUE(sent.startsWith(all)) << "what was freed has been sent";
  EXPECT_EQ(helper.Wait(), 0);
  ::close(peer);
}

// Only the exit itself waits.
TEST_F(AnyThread, SendsWhileAnExitWaitsForItsReader) {
  ::fcntl(listening_, F_SETFD, 0);
  Process helper(HELPER, {"leave-while-writing", QString::number(listening_), "send"});
  ::fcntl(listening_, F_SETFD, FD_CLOEXEC);
  const int peer = Connect();
  SendLine(peer, "{}");
  EXPECT_TRUE(WaitForFile(PathOf("done"), "\n"));
  EXPECT_EQ(ReadFile(PathOf("done")), "in time\n");
  EXPECT_EQ(helper.Wait(), 0);
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
    Crowd crowd(&messaging, kFlood);
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
  Crowd crowd(&messaging, kFlood);
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

// Nothing else comes that would take it along.
TEST_F(HeldAnswer, LeavesWithTheEndOfTheRead) {
  TaskMessaging messaging(listening_);
  const int peer = Connect();
  QEventLoop loop;
  QTimer::singleShot(120'000, &loop, &QEventLoop::quit);
  int done = 0;
  QObject::connect(&messaging, &TaskMessaging::messageReceived, [&done, &loop, &messaging] {
    if (++done == 1) {
      messaging.sendData("early");
    }
    if (done == 3) {
      loop.quit();
    }
  });
  SendLine(peer, "{}\n{}\n{}");
  loop.exec();
  EXPECT_EQ(done, 3);
  EXPECT_TRUE(HasCome(peer, 0));
  ::close(peer);
}

// Again and again: where the machine is so busy that the turn is over meanwhile, it leaves with that.
TEST_F(HeldAnswer, WaitsForOneRunningHandlerAtMost) {
  for (int round = 0; round < 30 && !HasFailure(); ++round) {
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
}

// What the socket's owner has in it that nobody has read yet, as the kernel counts it: with what each
// system call costs besides. 0 where it does not tell.
int Weight(int socket) {
  int weight = 0;
  return ::ioctl(socket, SIOCOUTQ, &weight) == 0 ? weight : 0;
}

int WeightOfOneWrite(int size) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const QByteArray bytes(size, 'x');
  EXPECT_EQ(::send(ends[0], bytes.constData(), static_cast<std::size_t>(size), 0), size);
  const int weight = Weight(ends[0]);
  ::close(ends[0]);
  ::close(ends[1]);
  return weight;
}

// The connection that is served: the only socket that was not there before.
int NewSocket(const QStringList& before) {
  for (const QString& descriptor : OpenDescriptors()) {
    if (!before.contains(descriptor) && descriptor.contains("socket:")) {
      return descriptor.section(' ', 0, 0).toInt();
    }
  }
  return -1;
}

// A busy machine may come between the two, for longer than an answer is held: then once more.
TEST_F(HeldAnswer, LeavesInOneSystemCallWithThatToTheNextMessageOfTheRead) {
  const QByteArray answer = R"({"data":"answer"})";
  TaskMessaging messaging(listening_);
  const int peer = Connect();
  const QStringList before = OpenDescriptors();
  int messages = 0;
  QObject::connect(&messaging, &TaskMessaging::messageReceived, [&messages, &messaging] {
    ++messages;
    messaging.sendData("answer");
  });
  SendLine(peer, "{}");
  EXPECT_EQ(ReadLineFrom(peer), answer);
  const int served = NewSocket(before);
  ASSERT_GE(served, 0);
  const int wanted = WeightOfOneWrite(2 * (answer.size() + 1));
  if (wanted == 0 || wanted >= 2 * WeightOfOneWrite(answer.size() + 1)) {
    ::close(peer);
    GTEST_SKIP() << "the kernel does not tell what each system call costs";
  }
  EXPECT_TRUE(RunUntil([&] {
    const int until = messages + 2;
    SendLine(peer, "{}\n{}");
    EXPECT_TRUE(RunUntil([&] { return messages == until; }));
    const int weight = Weight(served);
    EXPECT_EQ(ReadLineFrom(peer), answer);
    EXPECT_EQ(ReadLineFrom(peer), answer);
    return weight == wanted;
  }));
  ::close(peer);
}

// Whatever the handler does then.
TEST_F(HeldAnswer, LeavesOnceFourKibibytesAreHeld) {
  TaskMessaging messaging(listening_);
  const int peer = Connect();
  int done = 0;
  bool has_come_early = true;
  bool has_come = false;
  QObject::connect(&messaging, &TaskMessaging::messageReceived, [&, peer] {
    if (done++ > 0) {
      return;
    }
    messaging.sendData(QByteArray(1000, 'x'));
    has_come_early = HasCome(peer, 0);
    for (int i = 0; i < 4; ++i) {
      messaging.sendData(QByteArray(1000, 'x'));
    }
    has_come = HasCome(peer, 0);
  });
  SendLine(peer, "{}\n{}\n{}");
  EXPECT_TRUE(RunUntil([&done] { return done == 3; }));
  EXPECT_FALSE(has_come_early);
  EXPECT_TRUE(has_come);
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

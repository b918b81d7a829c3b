// Messages between a starter and its task.
#include <RuntimeManager/RuntimeDispatcher.h>
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <csignal>
#include <memory>

#include "crowd.h"
#include "kit.h"

namespace kit {
namespace {

using testing::HasSubstr;

class Messaging : public PlatformTest {
 protected:
  // A running task with a socket.
  std::unique_ptr<Task> Started(const QString& name) {
    auto task = std::make_unique<Task>(name);
    task->withIpcSocket(true);
    ExpectStarts(*task);
    return task;
  }
};

TEST_F(Messaging, GoThereAndBackInOrder) {
  AddHelperTask("echo");
  const auto task = Started("echo");
  TaskMessaging messaging(task->socketPath());
  Inbox inbox(&messaging);
  for (int i = 0; i < 1000; ++i) {
    messaging.sendMessage({{"n", i}});
  }
  ASSERT_TRUE(inbox.WaitFor(1000));
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(inbox.messages[static_cast<std::size_t>(i)]["n"], i);
  }
}

TEST_F(Messaging, MayBeSentBeforeTheTaskRuns) {
  AddHelperTask("echo");
  Task task("echo");
  task.withIpcSocket(true);
  task.start({});
  TaskMessaging messaging(task.socketPath());
  Inbox inbox(&messaging);
  messaging.sendMessage(Data("first"));
  ASSERT_TRUE(inbox.WaitFor(1));
  EXPECT_EQ(inbox.messages[0], Data("first"));
}

TEST_F(Messaging, Of8MiBPassUnharmedBothWays) {
  AddHelperTask("echo");
  const auto task = Started("echo");
  TaskMessaging messaging(task->socketPath());
  Inbox inbox(&messaging);
  QString plain(8 << 20, Qt::Uninitialized);
  for (int i = 0; i < plain.size(); ++i) {
    plain[i] = QChar(static_cast<ushort>('0' + i % 10));
  }
  messaging.sendMessage(Data(plain));
  ASSERT_TRUE(inbox.WaitFor(1));
  EXPECT_TRUE(inbox.messages[0] == Data(plain));
  plain[1 << 20] = '"';
  messaging.sendMessage(Data(plain));
  ASSERT_TRUE(inbox.WaitFor(2));
  EXPECT_TRUE(inbox.messages[1] == Data(plain));
}

TEST_F(Messaging, NeverBlockTheSender) {
  AddPythonTask("deaf", "time.sleep(60)");
  const auto task = Started("deaf");
  TaskMessaging messaging(task->socketPath());
  Inbox inbox(&messaging);
  const QString large(1 << 20, 'x');
  for (int i = 0; i < 20; ++i) {
    messaging.sendMessage(Data(large));
  }
  RunFor(50);
  EXPECT_FALSE(inbox.disconnects.Arrived());
}

TEST_F(Messaging, EndTheConnectionWhenTooMuchWaits) {
  const ScopedVariable queue("RUNTIME_MANAGER_MAX_QUEUE", "3000000");
  AddPythonTask("deaf", "time.sleep(60)");
  const auto task = Started("deaf");
  TaskMessaging messaging(task->socketPath());
  Inbox inbox(&messaging);
  const QString large(1 << 20, 'x');
  for (int i = 0; i < 4; ++i) {
    messaging.sendMessage(Data(large));
  }
  EXPECT_FALSE(inbox.disconnects.Arrived());
  const Error error = inbox.disconnects.Wait();
  EXPECT_EQ(error.code(), Error::kQueueFull);
  EXPECT_THAT(error.message().toStdString(), HasSubstr("3000000"));
  const WarningCatcher warnings;
  messaging.sendMessage(Data("late"));
  messaging.sendMessage(Data("later"));
  EXPECT_EQ(warnings.Count("messages to task 'deaf' are dropped: its connection has ended"), 1);
  RunFor(100);
  EXPECT_EQ(inbox.disconnects.errors.size(), 1U);
}

TEST_F(Messaging, LeaveTimeForTimersDuringAFlood) {
  AddPythonTask("flood",
                "c, _ = server.accept()\nline = b'{\"data\":\"' + b'x' * 1000 + b'\"}\\n'\n"
                "while True: c.sendall(line * 100)");
  const auto task = Started("flood");
  TaskMessaging messaging(task->socketPath());
  int ticks = 0;
  QTimer timer;
  QObject::connect(&timer, &QTimer::timeout, [&ticks] { ++ticks; });
  timer.start(1);
  EXPECT_TRUE(RunUntil([&ticks] { return ticks >= 20; }));
}

TEST_F(Messaging, OfATaskComeBeforeTheNewsOfItsEnd) {
  AddPythonTask("leaves",
                "c, _ = server.accept()\nc.recv(10)\n"
                "for i in range(500): c.sendall(b'{\"n\":%d}\\n' % i)\n"
                "os.write(2, b'I am leaving\\n'); os._exit(9)");
  for (int round = 0; round < 20; ++round) {
    const auto task = Started("leaves");
    TaskMessaging messaging(task->socketPath());
    std::vector<std::string> order;
    Error why;
    QObject::connect(&messaging, &TaskMessaging::messageReceived,
                     [&order] { order.emplace_back("message"); });
    QObject::connect(task.get(), &Task::finished,
                     [&order](const Error&) { order.emplace_back("finished"); });
    QObject::connect(&messaging, &TaskMessaging::disconnected, [&order, &why](const Error& error) {
      order.emplace_back("disconnected");
      why = error;
    });
    messaging.sendMessage(Data("go"));
    ASSERT_TRUE(RunUntil([&order] { return !order.empty() && order.back() == "disconnected"; }));
    ASSERT_EQ(order.size(), 502U);
    EXPECT_EQ(order[500], "finished");
    EXPECT_EQ(why.code(), Error::kTaskExited);
    EXPECT_THAT(why.message().toStdString(), HasSubstr("exited with status 9"));
    EXPECT_THAT(why.message().toStdString(), HasSubstr("I am leaving"));
  }
}

// Handlers that take longer than a turn of the event loop may.
TEST_F(Messaging, OfATaskThatHasEndedAreDeliveredInOneGo) {
  constexpr std::size_t kMessages = 200;
  AddPythonTask("leaves",
                "c, _ = server.accept()\nc.recv(10)\nc.sendall(b'{}\\n' * 200)\nos._exit(0)");
  const auto task = Started("leaves");
  TaskMessaging messaging(task->socketPath());
  std::size_t messages = 0;
  std::size_t messages_before = 0;
  QObject::connect(&messaging, &TaskMessaging::messageReceived, [&messages] {
    ++messages;
    ::usleep(1000);
  });
  Outcomes finished;
  QObject::connect(task.get(), &Task::finished, [&](const Error& error) {
    messages_before = messages;
    finished.errors.push_back(error);
  });
  messaging.sendMessage(Data("go"));
  finished.Wait();
  EXPECT_EQ(messages_before, kMessages);
}

TEST_F(Messaging, WhoseHandlerThrowsKeepNobodyFromTheNewsOfTheEnd) {
  AddPythonTask("leaves",
                "c, _ = server.accept()\nc.recv(10)\nc.sendall(b'{}\\n' * 200)\nos._exit(0)");
  const auto task = Started("leaves");
  TaskMessaging messaging(task->socketPath());
  int messages = 0;
  QObject::connect(&messaging, &TaskMessaging::messageReceived, [&messages] {
    ::usleep(1000);
    if (++messages == 200) {
      throw std::runtime_error("the last");
    }
  });
  Outcomes finished;
  QObject::connect(task.get(), &Task::finished, finished.Recorder());
  Outcomes disconnected;
  QObject::connect(&messaging, &TaskMessaging::disconnected, disconnected.Recorder());
  messaging.sendMessage(Data("go"));
  EXPECT_THROW(finished.Wait(), std::runtime_error);
  EXPECT_THAT(finished.Wait().message().toStdString(), HasSubstr("exited with status 0"));
  EXPECT_EQ(disconnected.Wait().code(), Error::kTaskExited);
}

TEST_F(Messaging, OfATaskThatExitsAtOnceArriveWhole) {
  AddHelperTask("flood");
  Task task("flood");
  task.withIpcSocket(true);
  task.withArguments({"flood"});
  ExpectStarts(task);
  TaskMessaging messaging(task.socketPath());
  Inbox inbox(&messaging);
  messaging.sendMessage(Data("go"));
  ASSERT_TRUE(inbox.WaitFor(5));
  for (int i = 0; i < 5; ++i) {
    EXPECT_TRUE(inbox.messages[static_cast<std::size_t>(i)] ==
                Data(QString(kFloodText, QChar('a' + i))));
  }
}

// Nobody reads until the task is gone.
TEST_F(Messaging, ThatWaitInATaskAreLostWhenItEndsAtOnce) {
  AddHelperTask("flood");
  Task task("flood");
  task.withIpcSocket(true);
  task.withArguments({"flood", "at-once"});
  Outcomes finished;
  QObject::connect(&task, &Task::finished, finished.Recorder());
  ExpectStarts(task);
  TaskMessaging messaging(task.socketPath());
  Inbox inbox(&messaging);
  messaging.sendMessage(Data("go"));
  for (int i = 0; i < 60000 && !QFile::exists(PathOf("flooded")); ++i) {
    ::usleep(1000);
  }
  EXPECT_THAT(finished.Wait().message().toStdString(), HasSubstr("exited with status 0"));
  EXPECT_TRUE(inbox.disconnects.Wait().isError());
  EXPECT_TRUE(inbox.messages.empty()) << "a message that is cut short";
}

// The first is answered, the second ends the process; both come in one read.
TEST_F(Messaging, AnsweredBeforeTheOneThatEndsTheTaskAreNotLost) {
  AddHelperTask("task");
  Task task("task");
  task.withIpcSocket(true);
  task.withArguments({"answer-and-exit"});
  ExpectStarts(task);
  TaskMessaging messaging(task.socketPath());
  Inbox inbox(&messaging);
  messaging.sendData("hello");
  messaging.sendData("exit");
  ASSERT_TRUE(inbox.WaitFor(1));
  EXPECT_EQ(inbox.messages[0], Data("hello"));
  inbox.disconnects.Wait();
}

// What a starter writes that answers the first message and leaves in the handler of the second.
class HeldMessages : public Messaging {
 protected:
  std::string SentBefore(const QString& end) {
    const int listening = ListenOn(PathOf("peer"));
    const Process starter(HELPER, {"leave", PathOf("peer"), end});
    const int peer = ::accept(listening, nullptr, nullptr);
    const QByteArray lines = "{\"data\":\"1\"}\n{\"data\":\"2\"}\n{\"data\":\"3\"}\n";
    EXPECT_EQ(::send(peer, lines.constData(), static_cast<std::size_t>(lines.size()), 0),
              lines.size());
    const std::string sent = ReadToEnd(peer).toStdString();
    ::close(peer);
    ::close(listening);
    QFile::remove(PathOf("peer"));
    return sent;
  }
};

TEST_F(HeldMessages, AreSentOnceByAProcessThatEndsInGoodOrder) {
  EXPECT_EQ(SentBefore("exit"), "{\"data\":\"first\"}\n");
  EXPECT_EQ(SentBefore("fork"), "{\"data\":\"first\"}\n");
  EXPECT_EQ(SentBefore("fork-and-return"), "{\"data\":\"first\"}\n");
}

// Unless the handlers took so long that they have left.
TEST_F(HeldMessages, MayBeLostWithAProcessThatEndsAtOnceButAreNeverCutShort) {
  for (const char* end : {"_exit", "abort", "signal"}) {
    bool is_lost = false;
    for (int i = 0; i < 50 && !is_lost; ++i) {
      const std::string sent = SentBefore(end);
      EXPECT_THAT(sent, testing::AnyOf("", "{\"data\":\"first\"}\n")) << end;
      is_lost = sent.empty();
    }
    EXPECT_TRUE(is_lost) << end;
  }
}

TEST_F(Messaging, AreRefusedToAForkedCopyOfTheProcess) {
  const TaskMessaging original(PathOf("nothing"));
  const int listening = ListenOn(PathOf("peer"));
  const auto is_refused = [](const auto& way) {
    TaskMessaging messaging(way);
    Inbox inbox(&messaging);
    messaging.sendMessage(Data("lost"));
    const Error error = inbox.disconnects.Wait();
    return error.code() == Error::kWrongState && error.message().contains("forked copy");
  };
  EXPECT_EXIT(::_exit(is_refused(PathOf("peer")) && is_refused(listening) ? 0 : 1),
              testing::ExitedWithCode(0), "");
  ::close(listening);
}

// More connections than an event loop has places of their own for: the rest share a set of descriptors
// with the copy.
TEST_F(ServerEnd, IsHeardOnAfterAForkedCopyHasDestroyedItsObjects) {
  std::vector<std::unique_ptr<TaskMessaging>> all;
  std::vector<std::unique_ptr<Inbox>> inboxes;
  std::vector<int> peers;
  for (int i = 0; i < 40; ++i) {
    all.push_back(std::make_unique<TaskMessaging>(PathOf("server")));
    inboxes.push_back(std::make_unique<Inbox>(all.back().get()));
    peers.push_back(::accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC));
  }
  const auto end_as_copy = [&all] {
    all.clear();
    ::_exit(0);
  };
  EXPECT_EXIT(end_as_copy(), testing::ExitedWithCode(0), "");
  for (const int peer : peers) {
    SendLine(peer, "{}");
  }
  for (const auto& inbox : inboxes) {
    EXPECT_TRUE(inbox->WaitFor(1));
    EXPECT_FALSE(inbox->disconnects.Arrived());
  }
  for (const int peer : peers) {
    ::close(peer);
  }
}

// The starter's connection is there, but nobody takes it.
TEST_F(Messaging, ThatNobodyReadsDoNotKeepATaskFromExiting) {
  AddHelperTask("flood");
  Task task("flood");
  task.withIpcSocket(true);
  task.withArguments({"flood", "unasked"});
  Outcomes finished;
  QObject::connect(&task, &Task::finished, finished.Recorder());
  ExpectStarts(task);
  EXPECT_THAT(finished.Wait().message().toStdString(), HasSubstr("exited with status 0"));
}

TEST_F(Messaging, EndWithAnErrorWhenALiveTaskClosesTheConnection) {
  AddPythonTask("closes", "c, _ = server.accept()\nc.close()\ntime.sleep(60)");
  const auto task = Started("closes");
  Outcomes finished;
  QObject::connect(task.get(), &Task::finished, finished.Recorder());
  TaskMessaging messaging(task->socketPath());
  Inbox inbox(&messaging);
  EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kConnectionLost);
  EXPECT_FALSE(finished.Arrived());
}

TEST_F(Messaging, AreReadToTheEndWhenTheTaskStopsReading) {
  AddPythonTask("half",
                "c, _ = server.accept()\nc.shutdown(socket.SHUT_RD)\n"
                "c.sendall(b'{\"n\":1}\\n{\"n\":2}\\n')\nopen(os.environ['WORLD'] + '/sent', "
                "'w').write('x')\n"
                "time.sleep(60)");
  const auto task = Started("half");
  TaskMessaging messaging(task->socketPath());
  Inbox inbox(&messaging);
  // Without a turn of the event loop in between: the failed write comes before the messages.
  for (int i = 0; i < 60000 && ReadFile(PathOf("sent")).isEmpty(); ++i) {
    ::usleep(1000);
  }
  messaging.sendMessage(Data("anybody there?"));
  EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kConnectionLost);
  EXPECT_EQ(inbox.messages.size(), 2U);
}

TEST_F(Messaging, SayThatNobodyListens) {
  TaskMessaging nothing(PathOf("nothing"));
  Outcomes lost;
  QObject::connect(&nothing, &TaskMessaging::disconnected, lost.Recorder());
  EXPECT_FALSE(lost.Arrived());
  EXPECT_EQ(lost.Wait().code(), Error::kConnectFailed);
  EXPECT_THAT(lost.Wait().message().toStdString(), HasSubstr("nothing"));
  ::close(ListenOn(PathOf("dead")));
  TaskMessaging dead(PathOf("dead"));
  Outcomes refused;
  QObject::connect(&dead, &TaskMessaging::disconnected, refused.Recorder());
  EXPECT_THAT(refused.Wait().message().toStdString(), HasSubstr("Connection refused"));
  RunFor(50);
  EXPECT_EQ(refused.errors.size() + lost.errors.size(), 2U);
}

TEST_F(Messaging, AreNotExchangedWithAListenerOfAnotherUser) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "only root can become somebody else";
  }
  ::chmod(PathOf("").toUtf8().constData(), 0711);
  ASSERT_EQ(::mkdir(PathOf("theirs").toUtf8().constData(), 0700), 0);
  ASSERT_EQ(::chown(PathOf("theirs").toUtf8().constData(), 65534, 65534), 0);
  const QString path = PathOf("theirs/server");
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const pid_t stranger = ::fork();
  if (stranger == 0) {
    if (::setuid(65534) != 0) {
      ::_exit(2);
    }
    const int listening = ListenOn(path);
    ::close(ends[1]);
    const int socket = ::accept(listening, nullptr, nullptr);
    char byte = 0;
    ::_exit(socket >= 0 && ::read(socket, &byte, 1) <= 0 ? 0 : 1);
  }
  ::close(ends[1]);
  // It listens, or has failed to.
  ReadToEnd(ends[0]);
  ::close(ends[0]);
  TaskMessaging messaging(path);
  Inbox inbox(&messaging);
  messaging.sendMessage(Data("secret"));
  const Error error = inbox.disconnects.Wait();
  EXPECT_EQ(error.code(), Error::kPeerRefused);
  EXPECT_THAT(error.message().toStdString(), HasSubstr("65534"));
  int status = -1;
  EXPECT_TRUE(
      RunUntil([stranger, &status] { return ::waitpid(stranger, &status, WNOHANG) == stranger; }));
  EXPECT_EQ(status, 0);
}

TEST_F(Messaging, CanBeServedAgainOnTheSameSocket) {
  AddHelperTask("again");
  Task task("again");
  task.withIpcSocket(true);
  task.withArguments({"again"});
  ExpectStarts(task);
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(IsWelcome(task.socketPath())) << round;
  }
}

TEST_F(ServerEnd, DeliversLinesAndDropsThoseThatAreNoObjectsWithOneWarningEach) {
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int peer = Connect();
  const WarningCatcher warnings;
  SendLine(peer, R"({"n":1})");
  SendLine(peer, "nonsense");
  SendLine(peer, "[1,2]");
  SendLine(peer, R"({"n":2})");
  ASSERT_TRUE(inbox.WaitFor(2));
  EXPECT_EQ(inbox.messages[1]["n"], 2);
  EXPECT_EQ(warnings.Count("is not a JSON object"), 2);
  EXPECT_EQ(warnings.Count("from the starter of the task 'platform_tests' is dropped"), 2);
  EXPECT_EQ(warnings.Count("nonsense"), 1);
  ::close(peer);
  EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kConnectionLost);
}

// The ends of the service take texts, and nothing else.
TEST_F(ServerEnd, WarnsOfAMessageWithoutATextWhenTextsAreTaken) {
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int peer = Connect();
  const WarningCatcher warnings;
  SendLine(peer, R"({"n":1})");
  ASSERT_TRUE(inbox.WaitFor(1));
  EXPECT_EQ(warnings.Count("holds no message"), 0) << "nobody asked for texts";
  QStringList texts;
  QObject::connect(&messaging, &TaskMessaging::dataReceived,
                   [&texts](const QByteArray& text) { texts << text; });
  SendLine(peer, R"({"data":5,"esc":"\u001b"})");
  SendLine(peer, "{}");
  SendLine(peer, R"({"data":"\""})");
  SendLine(peer, R"({"data":"text"})");
  ASSERT_TRUE(RunUntil([&texts] { return !texts.isEmpty(); }));
  EXPECT_EQ(inbox.messages.size(), 4U) << "they are delivered all the same";
  EXPECT_EQ(warnings.Count("holds no message"), 2);
  EXPECT_EQ(warnings.Count("a line of 25 bytes from the starter of the task 'platform_tests' holds "
                           "no message: it has no text \"data\"; it begins with: {\"data\":5,"),
            1);
  ::close(peer);
}

TEST_F(ServerEnd, TakesLinesInPieces) {
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int peer = Connect();
  for (const char byte : QByteArray("{\"data\":\"slow\"}\n{\"data\":\"two\"}\n{\"da")) {
    ASSERT_EQ(::send(peer, &byte, 1, 0), 1);
    RunFor(1);
  }
  ASSERT_TRUE(inbox.WaitFor(2));
  EXPECT_EQ(inbox.messages[1], Data("two"));
  ::close(peer);
  inbox.disconnects.Wait();
  EXPECT_EQ(inbox.messages.size(), 2U);
}

TEST_F(ServerEnd, EndsAConnectionWhoseLineIsOverTheBound) {
  const ScopedVariable bound("RUNTIME_MANAGER_MAX_MESSAGE", "20");
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int peer = Connect();
  SendLine(peer, R"({"data":"123456789"})");
  ASSERT_TRUE(inbox.WaitFor(1));
  SendLine(peer, R"({"data":"1234567890"})");
  const Error error = inbox.disconnects.Wait();
  EXPECT_EQ(error.code(), Error::kMessageTooLong);
  EXPECT_THAT(error.message().toStdString(), HasSubstr("20 bytes"));
  EXPECT_EQ(inbox.messages.size(), 1U);
  EXPECT_TRUE(IsClosed(peer));
  ::close(peer);
}

TEST_F(ServerEnd, SendsATextUpToTheBoundOfItsEnvelope) {
  const ScopedVariable bound("RUNTIME_MANAGER_MAX_MESSAGE", "20");
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int peer = Connect();
  messaging.sendData("123456789");
  EXPECT_EQ(ReadLineFrom(peer), R"({"data":"123456789"})");
  messaging.sendData("1234567890");
  messaging.sendData("1");
  EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kMessageTooLong);
  EXPECT_EQ(ReadToEnd(peer), "");
  ::close(peer);
}

TEST_F(ServerEnd, SendsTextsOnlyAsFarAsTheQueueGoes) {
  const ScopedVariable queue("RUNTIME_MANAGER_MAX_QUEUE", "1000000");
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int peer = Connect();
  ASSERT_TRUE(RunUntil([&messaging, peer] {
    messaging.sendData("hello");
    char byte = 0;
    return ::recv(peer, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 1;
  }));
  const QByteArray text(400000, 'x');
  for (int i = 0; i < 4; ++i) {
    messaging.sendData(text);
  }
  EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kQueueFull);
  ::close(peer);
}

TEST_F(ServerEnd, TakesNoByteOfALineBeyondTheBound) {
  const ScopedVariable bound("RUNTIME_MANAGER_MAX_MESSAGE", "1000");
  for (const int unread : {0, 1, 100000}) {
    TaskMessaging messaging(listening_);
    Inbox inbox(&messaging);
    const int peer = Connect();
    // In the place of the line's end there is one byte more.
    const QByteArray line(1001 + unread, 'x');
    ASSERT_EQ(::send(peer, line.constData(), static_cast<std::size_t>(line.size()), 0),
              line.size());
    EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kMessageTooLong);
    // What was not read when the connection was closed resets it.
    char byte = 0;
    EXPECT_EQ(::recv(peer, &byte, 1, 0), unread == 0 ? 0 : -1) << unread;
    ::close(peer);
  }
}

TEST_F(ServerEnd, SendsNoMessageOverTheBound) {
  const ScopedVariable bound("RUNTIME_MANAGER_MAX_MESSAGE", "20");
  for (const QString& text : {QString("1234567890"), QString("\"\"\"\"\"")}) {
    TaskMessaging messaging(listening_);
    Inbox inbox(&messaging);
    const int peer = Connect();
    messaging.sendMessage(Data("12345678\n"));
    messaging.sendMessage(Data(text));
    EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kMessageTooLong);
    ::close(peer);
  }
}

TEST_F(ServerEnd, WarnsAboutBadLimitsAndUsesTheDefaults) {
  for (const char* value : {"many", "0", "-5", "99999999999999999999", "4294967296"}) {
    const ScopedVariable bound("RUNTIME_MANAGER_MAX_MESSAGE", value);
    const WarningCatcher warnings;
    TaskMessaging messaging(listening_);
    Inbox inbox(&messaging);
    EXPECT_EQ(warnings.Count("RUNTIME_MANAGER_MAX_MESSAGE"), 1) << value;
    const int peer = Connect();
    SendLine(peer, R"({"data":"works"})");
    EXPECT_TRUE(inbox.WaitFor(1));
    ::close(peer);
  }
}

TEST_F(ServerEnd, ServesTheFirstConnectionAndClosesEveryOther) {
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int first = Connect();
  SendLine(first, R"({"n":1})");
  ASSERT_TRUE(inbox.WaitFor(1));
  const int second = Connect();
  EXPECT_TRUE(IsClosed(second));
  ::close(second);
  SendLine(first, R"({"n":2})");
  ASSERT_TRUE(inbox.WaitFor(2));
  ::close(first);
  inbox.disconnects.Wait();
  const int third = Connect();
  EXPECT_TRUE(IsClosed(third));
  ::close(third);
  EXPECT_EQ(inbox.disconnects.errors.size(), 1U);
}

TEST_F(ServerEnd, KeepsWhatItSendsBeforeThereIsAPeer) {
  TaskMessaging messaging(listening_);
  messaging.sendMessage(Data("waiting"));
  const int peer = Connect();
  EXPECT_EQ(ReadLineFrom(peer), R"({"data":"waiting"})");
  ::close(peer);
}

TEST_F(ServerEnd, LeavesTheDescriptorToItsOwner) {
  for (int round = 0; round < 3; ++round) {
    auto messaging = std::make_unique<TaskMessaging>(listening_);
    Inbox inbox(messaging.get());
    const int peer = Connect();
    SendLine(peer, R"({"n":1})");
    ASSERT_TRUE(inbox.WaitFor(1));
    messaging.reset();
    EXPECT_TRUE(IsClosed(peer));
    ::close(peer);
  }
}

TEST_F(ServerEnd, SaysThatTheProcessIsNoTask) {
  EXPECT_EQ(RuntimeManager::RuntimeDispatcher::instance()->localServerSocket(), -1);
  const WarningCatcher warnings;
  TaskMessaging none(-1);
  Inbox inbox(&none);
  EXPECT_EQ(warnings.Count("'platform_tests' has no task socket"), 1);
  EXPECT_FALSE(inbox.disconnects.Arrived());
  EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kNotATask);
  TaskMessaging no_socket(STDIN_FILENO);
  Inbox other(&no_socket);
  EXPECT_EQ(other.disconnects.Wait().code(), Error::kNotATask);
}

TEST_F(ServerEnd, DisconnectsAPeerOfAnotherUserAndWaitsOn) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "only root can become somebody else";
  }
  ::chmod(PathOf("").toUtf8().constData(), 0711);
  ::chmod(PathOf("server").toUtf8().constData(), 0777);
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const QByteArray path = PathOf("server").toUtf8();
  const WarningCatcher warnings;
  const pid_t stranger = ::fork();
  if (stranger == 0) {
    if (::setuid(65534) != 0) {
      ::_exit(2);
    }
    const int socket = ConnectTo(QString::fromUtf8(path));
    char byte = 0;
    ::_exit(socket >= 0 && ::read(socket, &byte, 1) <= 0 ? 0 : 1);
  }
  int status = -1;
  EXPECT_TRUE(
      RunUntil([stranger, &status] { return ::waitpid(stranger, &status, WNOHANG) == stranger; }));
  EXPECT_EQ(status, 0);
  EXPECT_EQ(warnings.Count(QString("the task 'platform_tests': a connection with process %1 is "
                                   "refused: it belongs to the user with id 65534, ")
                               .arg(stranger)),
            1);
  const int peer = Connect();
  SendLine(peer, R"({"n":1})");
  EXPECT_TRUE(inbox.WaitFor(1));
  ::close(peer);
}

TEST_F(ServerEnd, IsNotDeafAfterItRanOutOfDescriptors) {
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int peer = Connect();
  SendLine(peer, R"({"n":1})");
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const int lowest = ::dup(STDERR_FILENO);
  ::close(lowest);
  rlimit tight = before;
  tight.rlim_cur = static_cast<rlim_t>(lowest);
  const WarningCatcher warnings;
  ::setrlimit(RLIMIT_NOFILE, &tight);
  EXPECT_TRUE(RunUntil([&warnings] { return warnings.Count("Too many open files") > 0; }));
  RunFor(300);
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(warnings.Count("a connection to the task 'platform_tests' has to wait"), 1);
  EXPECT_EQ(warnings.Count("Too many open files"), 1);
  EXPECT_TRUE(inbox.messages.empty());
  EXPECT_TRUE(inbox.WaitFor(1));
  ::close(peer);
}

// Whoever waits for its starter's connection, and cannot have it, tells.
TEST_F(ServerEnd, GivesUpWhenItsFirstConnectionCannotBeAcceptedForFiveSeconds) {
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int peer = Connect();
  const int lowest = ::dup(STDERR_FILENO);
  ::close(lowest);
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  rlimit tight = before;
  tight.rlim_cur = static_cast<rlim_t>(lowest);
  ::setrlimit(RLIMIT_NOFILE, &tight);
  const bool gives_up = RunUntil([&inbox] { return !inbox.disconnects.errors.empty(); });
  ::setrlimit(RLIMIT_NOFILE, &before);
  ASSERT_TRUE(gives_up);
  EXPECT_EQ(
      inbox.disconnects.errors.front().message(),
      "no connection to the task 'platform_tests' could be accepted for 5 s: Too many open files");
  ::close(peer);
}

TEST_F(ServerEnd, SurvivesAPeerThatLeavesInTheMiddleOfAWrite) {
  const auto before = std::signal(SIGPIPE, SIG_DFL);
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int peer = Connect();
  SendLine(peer, R"({"n":1})");
  ASSERT_TRUE(inbox.WaitFor(1));
  const QString large(4 << 20, 'x');
  messaging.sendMessage(Data(large));
  SendLine(peer, R"({"n":2})");
  ::close(peer);
  messaging.sendMessage(Data(large));
  EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kConnectionLost);
  EXPECT_EQ(inbox.messages.size(), 2U);
  EXPECT_EQ(std::signal(SIGPIPE, before), SIG_DFL);
}

TEST_F(ServerEnd, MayBeDestroyedFromInsideItsOwnSignals) {
  auto* in_message = new TaskMessaging(listening_);
  int messages = 0;
  QObject::connect(in_message, &TaskMessaging::messageReceived, [in_message, &messages] {
    ++messages;
    delete in_message;
  });
  const int peer = Connect();
  SendLine(peer, "{\"n\":1}\n{\"n\":2}");
  EXPECT_TRUE(IsClosed(peer));
  ::close(peer);
  EXPECT_EQ(messages, 1);

  auto* in_end = new TaskMessaging(listening_);
  bool ended = false;
  QObject::connect(in_end, &TaskMessaging::disconnected, [in_end, &ended] {
    delete in_end;
    ended = true;
  });
  ::close(Connect());
  EXPECT_TRUE(RunUntil([&ended] { return ended; }));
}

TEST_F(ServerEnd, GoesOnInsideAnEventLoopThatAHandlerRuns) {
  TaskMessaging messaging(listening_);
  std::vector<int> order;
  QObject::connect(&messaging, &TaskMessaging::messageReceived,
                   [&order](const QJsonObject& message) {
                     order.push_back(message["n"].toInt());
                     if (order.size() == 1) {
                       RunUntil([&order] { return order.size() >= 3; });
                     }
                   });
  const int peer = Connect();
  SendLine(peer, "{\"n\":1}\n{\"n\":2}");
  QTimer later;
  later.setSingleShot(true);
  QObject::connect(&later, &QTimer::timeout, [peer] { SendLine(peer, "{\"n\":3}\n{\"n\":4}"); });
  later.start(100);
  EXPECT_TRUE(RunUntil([&order] { return order.size() == 4; }));
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
  ::close(peer);
}

// Nothing but the first byte of the batch wakes the loop.
TEST_F(ServerEnd, DeliversWhatHasComeAlreadyInsideAnEventLoopThatAHandlerRuns) {
  TaskMessaging messaging(listening_);
  std::vector<int> order;
  bool inside = false;
  QObject::connect(&messaging, &TaskMessaging::messageReceived,
                   [&order, &inside](const QJsonObject& message) {
                     order.push_back(message["n"].toInt());
                     if (order.size() == 1) {
                       inside = RunUntil([&order] { return order.size() == 3; });
                     }
                   });
  const int peer = Connect();
  SendLine(peer, "{\"n\":1}\n{\"n\":2}\n{\"n\":3}");
  EXPECT_TRUE(RunUntil([&inside] { return inside; }));
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  ::close(peer);
}

TEST_F(ServerEnd, DeliversWhatHasComeBeforeTheEndThatAnInnerEventLoopMeets) {
  TaskMessaging messaging(listening_);
  std::vector<int> order;
  Outcomes ended;
  QObject::connect(&messaging, &TaskMessaging::disconnected, ended.Recorder());
  const int peer = Connect();
  QObject::connect(&messaging, &TaskMessaging::messageReceived,
                   [&order, &ended, peer](const QJsonObject& message) {
                     order.push_back(message["n"].toInt());
                     if (order.size() != 1) {
                       return;
                     }
                     ::shutdown(peer, SHUT_WR);
                     ended.Wait();
                   });
  SendLine(peer, "{\"n\":1}\n{\"n\":2}");
  EXPECT_EQ(ended.Wait().code(), Error::kConnectionLost);
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  ::close(peer);
}

TEST_F(ServerEnd, SendsTheAnswersToABatchInTheirOrderWhateverTheyAre) {
  TaskMessaging messaging(listening_);
  const QByteArray large(100000, 'x');
  QObject::connect(&messaging, &TaskMessaging::messageReceived, [&messaging, &large] {
    messaging.sendData("small");
    messaging.sendMessage({{"n", 1}});
    messaging.sendData("small");
    messaging.sendData(large);
    messaging.sendData("small");
    messaging.sendData("\"quoted\"");
  });
  const int peer = Connect();
  constexpr int kMessages = 50;
  SendLine(peer, QByteArray("{}\n").repeated(kMessages).chopped(1));
  QByteArray all;
  EXPECT_TRUE(RunUntilStuck(
      [&all, peer] {
        ReadMore(peer, &all);
        return all.count('\n') >= 6 * kMessages;
      },
      [&all] { return all.size(); }));
  const QList<QByteArray> lines = all.trimmed().split('\n');
  ASSERT_EQ(lines.size(), 6 * kMessages);
  const QByteArray small = R"({"data":"small"})";
  for (int i = 0; i < lines.size(); i += 6) {
    EXPECT_EQ(lines[i], small);
    EXPECT_EQ(lines[i + 1], R"({"n":1})");
    EXPECT_EQ(lines[i + 2], small);
    EXPECT_EQ(lines[i + 3], "{\"data\":\"" + large + "\"}");
    EXPECT_EQ(lines[i + 4], small);
    EXPECT_EQ(lines[i + 5], R"({"data":"\"quoted\""})");
  }
  ::close(peer);
}

TEST_F(ServerEnd, CountsAnswersForTheQueueOnlyWhileThePeerDoesNotTakeThem) {
  const ScopedVariable queue("RUNTIME_MANAGER_MAX_QUEUE", "2000");
  TaskMessaging messaging(listening_);
  const QByteArray answer(900, 'x');
  QObject::connect(&messaging, &TaskMessaging::messageReceived,
                   [&messaging, &answer] { messaging.sendData(answer); });
  const int peer = Connect();
  SendLine(peer, "{}\n{}\n{}\n{}");
  RunFor(10);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(ReadLineFrom(peer), "{\"data\":\"" + answer + "\"}");
  }
  ::close(peer);
}

// A peer that reads is waited for, one that does not read is not.
TEST_F(ServerEnd, DoesNotWaitWithALargeTextForAPeerThatDoesNotRead) {
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  const int peer = Connect();
  SendLine(peer, "{}");
  ASSERT_TRUE(inbox.WaitFor(1));
  QElapsedTimer timer;
  timer.start();
  for (int i = 0; i < 3; ++i) {
    messaging.sendData(QByteArray(8 << 20, 'x'));
  }
  EXPECT_LT(timer.elapsed(), 5000);
  ::close(peer);
}

TEST_F(ServerEnd, HasSentItsAnswersWhenTheNextHandlerDestroysIt) {
  auto* messaging = new TaskMessaging(listening_);
  int messages = 0;
  QObject::connect(messaging, &TaskMessaging::messageReceived, [messaging, &messages] {
    if (++messages == 1) {
      messaging->sendData("first");
      return;
    }
    delete messaging;
  });
  const int peer = Connect();
  SendLine(peer, "{}\n{}\n{}");
  EXPECT_TRUE(RunUntil([&messages] { return messages == 2; }));
  EXPECT_EQ(ReadToEnd(peer), "{\"data\":\"first\"}\n");
  ::close(peer);
}

TEST_F(ServerEnd, HasSentItsAnswersWhenTheNextOneIsTooMuchForTheQueue) {
  const ScopedVariable queue("RUNTIME_MANAGER_MAX_QUEUE", "10000");
  TaskMessaging messaging(listening_);
  Inbox inbox(&messaging);
  int messages = 0;
  QObject::connect(&messaging, &TaskMessaging::messageReceived, [&messaging, &messages] {
    if (++messages == 1) {
      messaging.sendData("first");
      return;
    }
    messaging.sendData(QByteArray(20000, 'x'));
  });
  const int peer = Connect();
  SendLine(peer, "{}\n{}\n{}");
  EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kQueueFull);
  EXPECT_EQ(ReadToEnd(peer), "{\"data\":\"first\"}\n");
  ::close(peer);
}

TEST_F(ServerEnd, EmitsNothingOnceItIsDestroyed) {
  Outcomes ended;
  const int peer = Connect();
  {
    TaskMessaging messaging(listening_);
    TaskMessaging none(-1);
    QObject::connect(&messaging, &TaskMessaging::disconnected, ended.Recorder());
    QObject::connect(&none, &TaskMessaging::disconnected, ended.Recorder());
  }
  ::close(peer);
  RunFor(100);
  EXPECT_FALSE(ended.Arrived());
}

}  // namespace
}  // namespace kit

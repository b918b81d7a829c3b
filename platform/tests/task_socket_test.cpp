// The sockets of tasks: where they are, who may use them, and when they go.
#include <RuntimeManager/Task.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QThread>
#include <algorithm>
#include <atomic>
#include <ctime>
#include <memory>
#include <vector>

#include "kit.h"

namespace kit {
namespace {

using testing::HasSubstr;

class TaskSocket : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    AddShellTask("task", "exec sleep 60");
  }
  Error StartError() {
    Task task("task");
    task.withIpcSocket(true);
    Outcomes started;
    task.start(started.Recorder());
    return started.Wait();
  }
  // Connections that nobody accepts, as many as the socket takes.
  static std::vector<int> FillQueue(const QString& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray name = path.toUtf8();
    std::copy(name.begin(), name.end(), address.sun_path);
    std::vector<int> sockets;
    int result = 0;
    while (result == 0) {
      sockets.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      result =
          ::connect(sockets.back(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    EXPECT_EQ(errno, EAGAIN);
    return sockets;
  }
  static mode_t Mode(const QString& path) {
    struct stat facts {};
    EXPECT_EQ(::lstat(path.toUtf8().constData(), &facts), 0) << path.toStdString();
    return facts.st_mode & 07777U;
  }
};

TEST_F(TaskSocket, LiesInTheRuntimeFolderWhateverTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
    QDir(RuntimeFolder()).removeRecursively();
    Task task("task");
    task.withIpcSocket(true);
    const mode_t before = ::umask(mask);
    Outcomes started;
    task.start(started.Recorder());
    ::umask(before);
    EXPECT_FALSE(started.Wait().isError());
    EXPECT_EQ(Mode(RuntimeFolder()), 0700U);
    EXPECT_EQ(Mode(task.socketPath()), 0600U);
    EXPECT_EQ(QFileInfo(task.socketPath()).path(), RuntimeFolder());
  }
}

TEST_F(TaskSocket, HasTheStartersConnectionFirst) {
  AddPythonTask("two",
                "time.sleep(0.3)\na, _ = server.accept()\nb, _ = server.accept()\n"
                "a.sendall(b'{\"n\":1}\\n')\nb.sendall(b'second\\n')\nb.recv(1)");
  Task task("two");
  task.withIpcSocket(true);
  task.start({});
  const int other = ConnectTo(task.socketPath());
  ASSERT_GE(other, 0);
  TaskMessaging messaging(task.socketPath());
  Inbox inbox(&messaging);
  ASSERT_TRUE(inbox.WaitFor(1));
  EXPECT_EQ(inbox.messages[0]["n"], 1);
  EXPECT_EQ(ReadLineFrom(other), "second");
  ::close(other);
}

// Another process of the user connects in the moment when the file appears.
TEST_F(TaskSocket, ServesItsStarterAndNobodyElse) {
  AddHelperTask("echo");
  for (int round = 0; round < 10; ++round) {
    const Process intruder(HELPER, {"intrude"});
    ASSERT_EQ(intruder.ReadLine(), "ready");
    Task task("echo");
    task.withIpcSocket(true);
    task.start({});
    TaskMessaging messaging(task.socketPath());
    Inbox inbox(&messaging);
    ASSERT_EQ(intruder.ReadLine(), "connected");
    messaging.sendMessage(Data("mine"));
    ASSERT_TRUE(inbox.WaitFor(1));
    EXPECT_EQ(inbox.messages[0], Data("mine"));
    EXPECT_EQ(intruder.ReadLine(), "closed");
    EXPECT_FALSE(inbox.disconnects.Arrived());
  }
}

// However long its starter takes for that.
TEST_F(TaskSocket, CannotBeFoundBeforeItsStarterHasConnected) {
  AddHelperTask("echo");
  const Process intruder(HELPER, {"intrude"});
  ASSERT_EQ(intruder.ReadLine(), "ready");
  const ScopedVariable slow("SLOW_CONNECTS", "1");
  Process starter(HELPER, {"talk", "echo", "text"});
  EXPECT_EQ(intruder.ReadLine(), "connected");
  EXPECT_EQ(intruder.ReadLine(), "closed");
  EXPECT_EQ(starter.Wait(), 0);
}

TEST_F(TaskSocket, IsNotServedToAnotherProcessWhenItsStarterHasHungUp) {
  AddHelperTask("again");
  Task task("again");
  task.withIpcSocket(true);
  task.withArguments({"again"});
  ExpectStarts(task);
  EXPECT_TRUE(IsWelcome(task.socketPath()));
  // The second welcome shows that the task has noticed the first leave.
  EXPECT_TRUE(IsWelcome(task.socketPath()));
  RunFor(300);
  const Process intruder(HELPER, {"intrude"});
  EXPECT_EQ(intruder.ReadLine(), "ready");
  EXPECT_EQ(intruder.ReadLine(), "connected");
  EXPECT_EQ(intruder.ReadLine(), "closed");
  EXPECT_TRUE(IsWelcome(task.socketPath()));
}

// A task that runs in a pid namespace does not see its starter: the first connection is the
// starter's, but of a later one nobody can tell.
TEST_F(TaskSocket, IsServedOnceToAStarterThatTheTaskDoesNotSee) {
  const QStringList apart = {"--pid", "--fork", "--kill-child"};
  if (Process("/usr/bin/unshare", apart + QStringList{"true"}).Wait() != 0) {
    GTEST_SKIP() << "only root can make a pid namespace";
  }
  AddShellTask("apart",
               "LISTEN_PID=1 exec /usr/bin/unshare --pid --fork --kill-child " HELPER " again");
  StderrPipe words;
  Task task("apart");
  task.withIpcSocket(true);
  ExpectStarts(task);
  EXPECT_TRUE(IsWelcome(task.socketPath()));
  QByteArray all;
  // Until the task has noticed that the first has left, it turns the second away without a word.
  EXPECT_TRUE(RunUntil([&all, &words, &task] {
    TaskMessaging second(task.socketPath());
    Inbox inbox(&second);
    EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kConnectionLost);
    EXPECT_TRUE(inbox.messages.empty());
    return (all += words.Read(4096))
        .contains(
            "the task 'apart': a connection with a process of another pid namespace is "
            "refused, because it serves a process of another pid namespace");
  }));
}

TEST_F(TaskSocket, IsNotMadeByAProcessThatItsChildrenDoNotSee) {
  // Its leak checker would need a thread, which a process cannot start then.
  const ScopedVariable asan("ASAN_OPTIONS", qgetenv("ASAN_OPTIONS") + ":detect_leaks=0");
  Process starter(HELPER, {"start", "task", "apart"});
  const std::string said = starter.ReadLine();
  EXPECT_EQ(starter.Wait(), 0);
  if (said == "only root can") {
    GTEST_SKIP() << "only root can make a pid namespace";
  }
  EXPECT_EQ(
      said,
      "error the task 'task' cannot be started: this process has called unshare() for another "
      "pid namespace, in which its tasks would not see it; fork first");
}

TEST_F(TaskSocket, ServesOneMessagingAtATime) {
  AddHelperTask("echo");
  Task task("echo");
  task.withIpcSocket(true);
  ExpectStarts(task);
  TaskMessaging first(task.socketPath());
  TaskMessaging second(task.socketPath());
  Inbox first_inbox(&first);
  Inbox second_inbox(&second);
  second.sendMessage(Data("lost"));
  EXPECT_EQ(second_inbox.disconnects.Wait().code(), Error::kConnectionLost);
  first.sendMessage(Data("heard"));
  ASSERT_TRUE(first_inbox.WaitFor(1));
  EXPECT_EQ(first_inbox.messages[0], Data("heard"));
}

// In a process that serves several.
TEST_F(ServerEnd, ServesEachSocketToTheProcessThatIsFirstThere) {
  TaskMessaging own(listening_);
  Inbox own_inbox(&own);
  const int peer = Connect();
  SendLine(peer, "{}");
  EXPECT_TRUE(own_inbox.WaitFor(1));
  ASSERT_TRUE(QDir().mkpath(RuntimeFolder()));
  const int other = ListenOn(RuntimeFolder() + "/other.sock");
  TaskMessaging messaging(other);
  Inbox inbox(&messaging);
  messaging.sendMessage(Data("to a stranger"));
  const Process stranger(HELPER, {"intrude"});
  EXPECT_EQ(inbox.disconnects.Wait().code(), Error::kConnectionLost);
  EXPECT_EQ(stranger.ReadLine(), "ready");
  EXPECT_EQ(stranger.ReadLine(), "connected");
  EXPECT_EQ(stranger.ReadLine(), "served");
  QFile::remove(RuntimeFolder() + "/other.sock");
  ::close(other);
  ::close(peer);
}

TEST_F(TaskSocket, KeepsWhatADeadTaskHasSentForMessagingThatIsMadeInACompletion) {
  AddPythonTask("leaves", "c, _ = server.accept()\nc.sendall(b'{\"n\":1}\\n{\"n\":2}\\n')");
  for (const bool in_finished : {false, true}) {
    Task task("leaves");
    task.withIpcSocket(true);
    std::unique_ptr<TaskMessaging> messaging;
    std::unique_ptr<Inbox> inbox;
    const auto talk = [&task, &messaging, &inbox] {
      messaging = std::make_unique<TaskMessaging>(task.socketPath());
      inbox = std::make_unique<Inbox>(messaging.get());
    };
    if (in_finished) {
      QObject::connect(&task, &Task::finished, talk);
      task.start({});
    } else {
      task.start([talk](const Error&) { talk(); });
      // The task is dead before the event loop runs.
      ::usleep(500000);
    }
    ASSERT_TRUE(RunUntil([&inbox] { return inbox != nullptr && inbox->disconnects.Arrived(); }));
    EXPECT_EQ(inbox->messages.size(), 2U);
    EXPECT_EQ(inbox->disconnects.errors[0].code(), Error::kTaskExited);
  }
}

TEST_F(TaskSocket, MayBeTakenByMessagingOfAnotherThread) {
  AddHelperTask("echo");
  Task task("echo");
  task.withIpcSocket(true);
  ExpectStarts(task);
  std::atomic<bool> has_answer{false};
  QThread thread;
  QObject in_thread;
  in_thread.moveToThread(&thread);
  TaskMessaging* messaging = nullptr;
  QObject::connect(&thread, &QThread::started, &in_thread, [&] {
    messaging = new TaskMessaging(task.socketPath());
    QObject::connect(messaging, &TaskMessaging::messageReceived, messaging, [&] {
      delete messaging;
      has_answer = true;
    });
    messaging->sendMessage(Data("from a thread"));
  });
  thread.start();
  EXPECT_TRUE(RunUntil([&has_answer] { return has_answer.load(); }));
  thread.quit();
  thread.wait();
}

// It goes with the Task, and nobody waits for anybody.
TEST_F(TaskSocket, LeavesAConnectionThatNobodyTakesUnread) {
  AddPythonTask(
      "talks",
      "signal.signal(signal.SIGTERM, signal.SIG_IGN)\n"
      "c, _ = server.accept()\nc.sendall(b'{\"n\":1}\\n')\n"
      "open(os.environ['WORLD'] + '/sent', 'w').write('sent\\n')\n"
      "try:\n  c.recv(1)\n  end = 'closed'\nexcept ConnectionResetError:\n  end = 'unread'\n"
      "open(os.environ['WORLD'] + '/end', 'w').write(end + '\\n')");
  auto task = std::make_unique<Task>("talks");
  task->withIpcSocket(true);
  ExpectStarts(*task);
  ASSERT_TRUE(WaitForFile(PathOf("sent"), "\n"));
  RunFor(300);
  EXPECT_FALSE(QFile::exists(PathOf("end")));
  task.reset();
  // A peer that closes with something unread resets the connection.
  EXPECT_TRUE(WaitForFile(PathOf("end"), "unread\n"));
}

// Although the Task lives on, and nobody has taken the starter's connection.
TEST_F(TaskSocket, LeavesNoConnectionBehindOnceItsTaskHasEnded) {
  AddShellTask("ends", "exit 0");
  AddShellTask("fails", "");
  QFile script(PathOf("tasks/fails"));
  ASSERT_TRUE(script.open(QIODevice::WriteOnly | QIODevice::Truncate));
  script.write("#!/no/such/interpreter\n");
  script.close();
  for (const char* name : {"ends", "fails"}) {
    const auto sockets = [] { return OpenDescriptors().filter("socket:"); };
    const QStringList before = sockets();
    Task task(name);
    task.withIpcSocket(true);
    Outcomes started;
    Outcomes finished;
    QObject::connect(&task, &Task::finished, finished.Recorder());
    task.start(started.Recorder());
    EXPECT_GT(sockets().size(), before.size());
    EXPECT_TRUE(started.Wait().isError() || finished.Wait().isError()) << name;
    EXPECT_TRUE(RunUntil([&before, sockets] { return sockets() == before; })) << name;
  }
}

TEST_F(TaskSocket, GoesWithItsTask) {
  AddShellTask("ends", "exit 0");
  Task ends("ends");
  ends.withIpcSocket(true);
  Outcomes finished;
  QObject::connect(&ends, &Task::finished, finished.Recorder());
  ends.start({});
  EXPECT_TRUE(QFile::exists(ends.socketPath()));
  finished.Wait();
  EXPECT_FALSE(QFile::exists(ends.socketPath()));

  Task stopped("task");
  stopped.withIpcSocket(true);
  ExpectStarts(stopped);
  Outcomes stop;
  stopped.stop({}, stop.Recorder());
  stop.Wait();
  EXPECT_FALSE(QFile::exists(stopped.socketPath()));
}

TEST_F(TaskSocket, IsSaidToStayBehindWhenItCannotBeRemoved) {
  StderrPipe words;
  QString path;
  {
    Task task("task");
    task.withIpcSocket(true);
    ExpectStarts(task);
    path = task.socketPath();
    // Not even root unlinks a folder.
    ASSERT_TRUE(QFile::remove(path));
    ASSERT_TRUE(QDir().mkdir(path));
    Outcomes stop;
    task.stop({}, stop.Recorder());
    EXPECT_FALSE(stop.Wait().isError());
  }
  EXPECT_TRUE(QDir().rmdir(path));
  EXPECT_THAT(words.ReadToEnd().toStdString(),
              HasSubstr("the socket file '" + path.toStdString() +
                        "' stays behind: Is a directory; the next process that uses its folder "
                        "removes it"));
}

TEST_F(TaskSocket, HasAnotherNameForEveryTask) {
  Task one("task");
  Task other("task");
  one.withIpcSocket(true);
  other.withIpcSocket(true);
  ExpectStarts(one);
  ExpectStarts(other);
  EXPECT_NE(one.socketPath(), other.socketPath());
}

TEST_F(TaskSocket, RefusesAFolderThatOthersCanEnter) {
  ASSERT_EQ(::mkdir(RuntimeFolder().toUtf8().constData(), 0700), 0);
  for (const mode_t mode : {mode_t{0750}, mode_t{0701}, mode_t{0770}, mode_t{0777}}) {
    ::chmod(RuntimeFolder().toUtf8().constData(), mode);
    const Error error = StartError();
    EXPECT_EQ(error.code(), Error::kRuntimeFolder);
    EXPECT_THAT(error.message().toStdString(), HasSubstr("chmod 700"));
    EXPECT_THAT(error.message().toStdString(), HasSubstr(RuntimeFolder().toStdString()));
  }
}

TEST_F(TaskSocket, RefusesAFolderOfSomebodyElse) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "only root can give a folder away";
  }
  ASSERT_EQ(::mkdir(RuntimeFolder().toUtf8().constData(), 0700), 0);
  ASSERT_EQ(::chown(RuntimeFolder().toUtf8().constData(), 65534, 65534), 0);
  const Error error = StartError();
  EXPECT_EQ(error.code(), Error::kRuntimeFolder);
  EXPECT_THAT(error.message().toStdString(), HasSubstr("belongs to the user with id 65534"));
}

TEST_F(TaskSocket, RefusesASymbolicLinkAndAFileInPlaceOfTheFolder) {
  ASSERT_EQ(::mkdir(PathOf("elsewhere").toUtf8().constData(), 0700), 0);
  ASSERT_TRUE(QFile::link(PathOf("elsewhere"), RuntimeFolder()));
  EXPECT_THAT(StartError().message().toStdString(), HasSubstr("symbolic link"));
  QFile::remove(RuntimeFolder());
  QFile file(RuntimeFolder());
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  EXPECT_EQ(StartError().code(), Error::kRuntimeFolder);
}

TEST_F(TaskSocket, SaysThatTheRuntimeDirectoryIsMissing) {
  const ScopedVariable missing("XDG_RUNTIME_DIR", "/no/such/folder");
  const Error error = StartError();
  EXPECT_EQ(error.code(), Error::kRuntimeFolder);
  EXPECT_THAT(error.message().toStdString(), HasSubstr("'/no/such/folder' (XDG_RUNTIME_DIR)"));
}

TEST_F(TaskSocket, LiesInAFolderOfTheUserWithoutARuntimeDirectory) {
  const ScopedVariable unset("XDG_RUNTIME_DIR", QByteArray());
  const ScopedVariable temporary("TMPDIR", PathOf("run").toUtf8());
  Task task("task");
  task.withIpcSocket(true);
  ExpectStarts(task);
  const QString folder = PathOf("run") + QString("/runtime-manager-%1").arg(::geteuid());
  EXPECT_EQ(QFileInfo(task.socketPath()).path(), folder);
  EXPECT_EQ(Mode(folder), 0700U);
}

TEST_F(TaskSocket, WorksUnderAPathThatNoSocketAddressCanHold) {
  const QString deep = PathOf("run/" + QString(90, 'a') + '/' + QString(90, 'b'));
  ASSERT_TRUE(QDir().mkpath(deep));
  const ScopedVariable runtime("XDG_RUNTIME_DIR", deep.toUtf8());
  AddHelperTask("echo");
  Task task("echo");
  task.withIpcSocket(true);
  ExpectStarts(task);
  EXPECT_GT(task.socketPath().size(), 107);
  TaskMessaging messaging(task.socketPath());
  Inbox inbox(&messaging);
  messaging.sendMessage(Data("far away"));
  ASSERT_TRUE(inbox.WaitFor(1));
  EXPECT_EQ(inbox.messages[0], Data("far away"));
}

// Which does not see the process that the name of the socket tells of.
TEST_F(TaskSocket, IsLeftAloneByAProcessOfAnotherPidNamespace) {
  const QStringList apart = {"--pid", "--fork", "--mount-proc"};
  if (Process("/usr/bin/unshare", apart + QStringList{"true"}).Wait() != 0) {
    GTEST_SKIP() << "only root can make a pid namespace";
  }
  AddHelperTask("echo");
  Task task("echo");
  task.withIpcSocket(true);
  ExpectStarts(task);
  const QString stale = RuntimeFolder() + "/4194305-77-1.sock";
  ::close(ListenOn(stale));
  // A socket whose queue is full, of a process that the namespace does not show either.
  const QString busy = RuntimeFolder() + "/4194305-77-2.sock";
  const int listening = ListenOn(busy);
  const std::vector<int> waiting = FillQueue(busy);

  Process stranger("/usr/bin/unshare", apart + QStringList{HELPER, "start", "task", "exit"});
  EXPECT_THAT(stranger.ReadLine(), testing::StartsWith("started "));
  EXPECT_EQ(stranger.Wait(), 0);
  EXPECT_FALSE(QFile::exists(stale));
  EXPECT_TRUE(QFile::remove(busy));
  TaskMessaging messaging(task.socketPath());
  Inbox inbox(&messaging);
  messaging.sendMessage(Data("still there"));
  EXPECT_TRUE(inbox.WaitFor(1));
  for (const int socket : waiting) {
    ::close(socket);
  }
  ::close(listening);
}

TEST_F(TaskSocket, ThatIsFullIsSaidToHaveBeenTriedForFiveSeconds) {
  const int listening = ListenOn(PathOf("busy"));
  const std::vector<int> waiting = FillQueue(PathOf("busy"));
  TaskMessaging messaging(PathOf("busy"));
  Inbox inbox(&messaging);
  const Error error = inbox.disconnects.Wait();
  EXPECT_EQ(error.code(), Error::kConnectFailed);
  EXPECT_THAT(error.message().toStdString(),
              testing::EndsWith("busy': Resource temporarily unavailable; its queue has been full "
                                "for 5 s, so its process does not accept connections"));
  for (const int socket : waiting) {
    ::close(socket);
  }
  ::close(listening);
}

TEST_F(TaskSocket, IsSweptWhenACrashLeftItBehindAndNoOther) {
  ASSERT_EQ(::mkdir(RuntimeFolder().toUtf8().constData(), 0700), 0);
  const auto start_time = [](const QByteArray& pid) {
    const QByteArray stat = ReadFile("/proc/" + pid + "/stat");
    return stat.mid(stat.lastIndexOf(')') + 2).split(' ').value(19);
  };
  const QByteArray parent = QByteArray::number(::getppid());
  const QString live = parent + '-' + start_time(parent) + "-1.sock";
  const QString hidden = ".4194305-77-1.sock";
  const QString just_hidden = ".4194305-77-2.sock";
  // Nobody can connect to it, but that is no refusal.
  const QString no_socket = "4194305-77-3.sock";
  const QStringList kept = {live,         "notes.sock",          "1-2-3.txt",
                            "a-b-c.sock", "4194305-1.sock",      '.' + live,
                            just_hidden,  "..4194305-77-1.sock", no_socket};
  const QStringList swept = {"4194305-77-1.sock", parent + "-1-1.sock", hidden};
  ASSERT_TRUE(QFile::link("nowhere", RuntimeFolder() + '/' + no_socket));
  for (const QString& name : kept + swept) {
    QFile file(RuntimeFolder() + '/' + name);
    ASSERT_TRUE(name == no_socket || file.open(QIODevice::WriteOnly)) << name.toStdString();
  }
  // A socket is hidden for a moment only, before it listens.
  const timeval old{::time(nullptr) - 61, 0};
  const timeval times[] = {old, old};
  ASSERT_EQ(::utimes((RuntimeFolder() + '/' + hidden).toUtf8().constData(), times), 0);
  EXPECT_FALSE(StartError().isError());
  for (const QString& name : swept) {
    EXPECT_FALSE(QFile::exists(RuntimeFolder() + '/' + name)) << name.toStdString();
  }
  for (const QString& name : kept) {
    EXPECT_TRUE(QFile::remove(RuntimeFolder() + '/' + name)) << name.toStdString();
  }
}

}  // namespace
}  // namespace kit

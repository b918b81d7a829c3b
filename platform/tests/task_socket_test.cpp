// The sockets of tasks: where they are, who may use them, and when they go.
#include <RuntimeManager/Task.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <algorithm>
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

TEST_F(TaskSocket, TakesConnectionsFromTheMomentOfTheStart) {
  AddPythonTask("late", "time.sleep(0.3)\nc, _ = server.accept()\nc.sendall(c.recv(99).upper())");
  Task task("late");
  task.withIpcSocket(true);
  task.start({});
  const int socket = ConnectTo(task.socketPath());
  ASSERT_GE(socket, 0);
  ASSERT_EQ(::write(socket, "early\n", 6), 6);
  EXPECT_EQ(ReadLineFrom(socket), "EARLY");
  ::close(socket);
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

TEST_F(TaskSocket, IsSweptWhenACrashLeftItBehindAndNoOther) {
  ASSERT_EQ(::mkdir(RuntimeFolder().toUtf8().constData(), 0700), 0);
  const auto start_time = [](const QByteArray& pid) {
    const QByteArray stat = ReadFile("/proc/" + pid + "/stat");
    return stat.mid(stat.lastIndexOf(')') + 2).split(' ').value(19);
  };
  const QByteArray parent = QByteArray::number(::getppid());
  const QString live = parent + '-' + start_time(parent) + "-1.sock";
  const QStringList kept = {live, "notes.sock", "1-2-3.txt", "a-b-c.sock", "4194305-1.sock"};
  const QStringList swept = {"4194305-77-1.sock", parent + "-1-1.sock"};
  for (const QString& name : kept + swept) {
    QFile file(RuntimeFolder() + '/' + name);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << name.toStdString();
  }
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

// Starting, ending and stopping tasks.
#include <RuntimeManager/Task.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QTimer>
#include <csignal>
#include <memory>

#include "kit.h"

namespace kit {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

std::string Text(const Error& error) { return error.message().toStdString(); }

class TaskTest : public PlatformTest {
 protected:
  Error StartError(const QString& name) {
    Task task(name);
    Outcomes started;
    task.start(started.Recorder());
    return started.Wait();
  }
  pid_t PidIn(const QString& file) {
    EXPECT_TRUE(WaitForFile(PathOf(file), "\n"));
    return static_cast<pid_t>(ReadFile(PathOf(file)).trimmed().toInt());
  }
};

TEST(Error, IsNoErrorByDefaultAndCarriesItsCodeAndText) {
  EXPECT_FALSE(Error().isError());
  EXPECT_EQ(Error().code(), 0);
  const Error error(-7, "why");
  EXPECT_TRUE(error.isError());
  EXPECT_EQ(error.code(), -7);
  EXPECT_EQ(error.message(), "why");
  EXPECT_FALSE(Error(0, "fine").isError());
}

// Applications pass these on to their own users, as JSON-RPC's errors of a server.
TEST(Error, HasFixedCodesForWhatEndsAConnection) {
  EXPECT_EQ(Error::kTaskExited, -32001);
  EXPECT_EQ(Error::kTaskKilled, -32002);
  EXPECT_EQ(Error::kConnectionLost, -32003);
  EXPECT_EQ(Error::kMessageTooLong, -32004);
  EXPECT_EQ(Error::kQueueFull, -32005);
}

// The set of descriptors that the event loop watches is not what it was.
void BreakTheSet() {
  const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  for (const QString& descriptor : OpenDescriptors()) {
    if (descriptor.endsWith("[eventpoll]")) {
      ::dup2(nothing, descriptor.section(' ', 0, 0).toInt());
    }
  }
  ::close(nothing);
}

TEST_F(TaskTest, IsHeardOfAlthoughTheSetOfDescriptorsTellsNothing) {
  AddShellTask("task", "echo $$ > $WORLD/pid; exec sleep 60");
  Task task("task");
  Outcomes finished;
  QObject::connect(&task, &Task::finished, finished.Recorder());
  ExpectStarts(task);
  const pid_t pid = PidIn("pid");
  BreakTheSet();
  ::kill(pid, SIGKILL);
  EXPECT_TRUE(finished.Wait().isError());
}

TEST_F(TaskTest, StartsAProgramThatItFindsByItsName) {
  AddShellTask("A-z_0.9", "echo ran > $WORLD/out; exec sleep 60");
  Task task("A-z_0.9");
  ExpectStarts(task);
  EXPECT_TRUE(WaitForFile(PathOf("out"), "ran"));
  EXPECT_EQ(task.socketPath(), "");
}

TEST_F(TaskTest, CompletesTheStartFromTheEventLoopAndOnce) {
  AddShellTask("task", "exec sleep 60");
  Task good("task");
  Task bad("nowhere");
  Outcomes good_started;
  Outcomes bad_started;
  good.start(good_started.Recorder());
  bad.start(bad_started.Recorder());
  EXPECT_FALSE(good_started.Arrived());
  EXPECT_FALSE(bad_started.Arrived());
  good_started.Wait();
  bad_started.Wait();
  RunFor(100);
  EXPECT_EQ(good_started.errors.size(), 1U);
  EXPECT_EQ(bad_started.errors.size(), 1U);
}

TEST_F(TaskTest, RefusesNamesThatAreNoNames) {
  for (const QString& name : {QString(), QString(".hidden"), QString("a/b"), QString("a b"),
                              QString("../up"), QString::fromUtf8("ä"), QString(129, 'a')}) {
    const Error error = StartError(name);
    EXPECT_EQ(error.code(), Error::kInvalidArgument) << name.toStdString();
    EXPECT_THAT(Text(error), HasSubstr("1 to 128"));
  }
  EXPECT_EQ(StartError(QString(128, 'a')).code(), Error::kTaskNotFound);
}

TEST_F(TaskTest, SaysWhichTaskItDoesNotFindAndWhereItLooked) {
  const ScopedVariable path("RUNTIME_MANAGER_TASK_PATH", "/first/folder:/second/folder");
  const Error error = StartError("missing");
  EXPECT_EQ(error.code(), Error::kTaskNotFound);
  EXPECT_THAT(Text(error), HasSubstr("'missing'"));
  const std::string beside = QFileInfo("/proc/self/exe").symLinkTarget().toStdString();
  const std::string order =
      "/first/folder, /second/folder, " + beside.substr(0, beside.rfind('/')) + "/tasks, ";
  EXPECT_THAT(Text(error), HasSubstr(order));
  EXPECT_THAT(Text(error), HasSubstr("/libexec/tarv/tasks"));
}

TEST_F(TaskTest, SaysHowToMakeAFileExecutable) {
  AddShellTask("plain", "");
  QFile::setPermissions(PathOf("tasks/plain"), QFile::ReadOwner);
  EXPECT_THAT(Text(StartError("plain")), HasSubstr("tasks/plain' is not executable: run chmod +x"));
}

TEST_F(TaskTest, TakesNoFolderForATask) {
  QDir(PathOf("tasks")).mkdir("folder");
  EXPECT_THAT(Text(StartError("folder")), HasSubstr("tasks/folder' is not a regular file"));
}

TEST_F(TaskTest, TakesTheFirstFolderThatHasTheTask) {
  AddShellTask("task", "echo second > $WORLD/out");
  QDir(PathOf("")).mkdir("first");
  QFile first(PathOf("first/task"));
  ASSERT_TRUE(first.open(QIODevice::WriteOnly));
  first.write("#!/bin/sh\necho first > $WORLD/out\n");
  first.setPermissions(QFile::ReadOwner | QFile::ExeOwner);
  first.close();
  const ScopedVariable path("RUNTIME_MANAGER_TASK_PATH",
                            (PathOf("first") + "::" + PathOf("tasks")).toUtf8());
  Task task("task");
  ExpectStarts(task);
  EXPECT_TRUE(WaitForFile(PathOf("out"), "first"));
}

TEST_F(TaskTest, SaysWhyTheProgramCannotRun) {
  AddShellTask("task", "");
  QFile file(PathOf("tasks/task"));
  ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
  file.write("#!/no/such/interpreter\n");
  file.close();
  const Error error = StartError("task");
  EXPECT_EQ(error.code(), Error::kStartFailed);
  EXPECT_THAT(Text(error), HasSubstr("'task'"));
  const std::string path = PathOf("tasks/task").toStdString();
  EXPECT_THAT(Text(error), HasSubstr("'" + path +
                                     "' cannot be run: No such file or directory; its interpreter "
                                     "'/no/such/interpreter' cannot be used: No such file or "
                                     "directory"));
}

// In one line, whatever the folder is called.
TEST_F(TaskTest, SaysWhichProgramCannotRunWithoutControlCharacters) {
  AddShellTask("task", "");
  const QString folder = PathOf("odd\n\x1b");
  ASSERT_TRUE(QDir().rename(PathOf("tasks"), folder));
  const ScopedVariable path("RUNTIME_MANAGER_TASK_PATH", folder.toUtf8());
  QFile file(folder + "/task");
  ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
  file.write("neither");
  file.close();
  const Error error = StartError("task");
  EXPECT_EQ(error.code(), Error::kStartFailed);
  EXPECT_THAT(Text(error), HasSubstr("odd\\n\\x1b/task' cannot be run"));
}

TEST_F(TaskTest, SaysWhichInterpreterOfAScriptCannotBeUsed) {
  AddShellTask("task", "");
  const auto error_with = [this](const QByteArray& first_line) {
    QFile file(PathOf("tasks/task"));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(first_line + "\nexit 0\n");
    file.close();
    return Text(StartError("task"));
  };
  EXPECT_THAT(error_with("#! \t/no/such/env -S python3"),
              HasSubstr("interpreter '/no/such/env' cann"));
  EXPECT_THAT(error_with("#!/etc/passwd"),
              HasSubstr("its interpreter '/etc/passwd' cannot be used: Permission denied"));
  EXPECT_THAT(error_with("#!/no/\x1b[2Jsuch\r"), HasSubstr("interpreter '/no/\\x1b[2Jsuch"));
  EXPECT_THAT(error_with("neither"), HasSubstr("it is no program of this machine, nor a script"));
}

// A copy of the helper with the path of its loader changed.
TEST_F(TaskTest, SaysWhichLoaderOfABinaryIsMissing) {
  AddShellTask("task", "");
  QByteArray binary = ReadFile(HELPER);
  const int at = binary.indexOf("/ld-linux");
  ASSERT_GT(at, 0);
  binary.replace(at, 9, "/no-linux");
  QFile file(PathOf("tasks/task"));
  ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
  file.write(binary);
  file.close();
  EXPECT_THAT(
      Text(StartError("task")),
      testing::ContainsRegex("its interpreter '/.*/no-linux[^']*' cannot be used: No such"));
}

TEST_F(TaskTest, EmitsNothingForATaskThatNeverRan) {
  AddShellTask("task", "");
  QFile::resize(PathOf("tasks/task"), 0);
  Task task("task");
  task.withIpcSocket(true);
  Outcomes started;
  Outcomes finished;
  QObject::connect(&task, &Task::finished, finished.Recorder());
  task.start(started.Recorder());
  EXPECT_EQ(started.Wait().code(), Error::kStartFailed);
  RunFor(100);
  EXPECT_FALSE(finished.Arrived());
  EXPECT_TRUE(SocketFiles().isEmpty());
}

TEST_F(TaskTest, PassesTheArgumentsAsTheyAre) {
  AddShellTask("task",
               "for a in \"$@\"; do echo \"<$a>\"; done > $WORLD/o; mv $WORLD/o $WORLD/out");
  Task task("task");
  task.withArguments({"--libs-path", "/a path/*", "", QString::fromUtf8("ü$HOME"), "two\nlines"});
  ExpectStarts(task);
  EXPECT_TRUE(
      WaitForFile(PathOf("out"), "<--libs-path>\n</a path/*>\n<>\n<ü$HOME>\n<two\nlines>\n"));
}

TEST_F(TaskTest, RefusesArgumentsThatNoProgramCanGet) {
  AddShellTask("task", "");
  Task with_nul("task");
  with_nul.withArguments({QString("a") + QChar(0) + "b"});
  Outcomes started;
  with_nul.start(started.Recorder());
  EXPECT_THAT(Text(started.Wait()), HasSubstr("NUL"));
  Task too_long("task");
  too_long.withArguments({QString(1 << 20, 'x')});
  Outcomes long_started;
  too_long.start(long_started.Recorder());
  EXPECT_THAT(Text(long_started.Wait()), HasSubstr("too long"));
}

TEST_F(TaskTest, DoesNotStartInAForkedCopyOfTheProcess) {
  AddShellTask("task", "exec sleep 60");
  Task original("task");
  ExpectStarts(original);
  const auto is_refused = [this] {
    const Error error = StartError("task");
    return error.code() == Error::kWrongState && error.message().contains("forked copy");
  };
  EXPECT_EXIT(::_exit(is_refused() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST_F(TaskTest, StartsOnce) {
  AddShellTask("task", "exec sleep 60");
  Task task("task");
  ExpectStarts(task);
  Outcomes again;
  task.start(again.Recorder());
  EXPECT_EQ(again.Wait().code(), Error::kWrongState);
}

// What the task sees of the process that it was started by.
constexpr char kLookAround[] =
    "ls -l /proc/$$/fd > $WORLD/fds; grep Sig /proc/self/status > $WORLD/signals\n"
    "env | grep -E '^(LISTEN|RUNTIME_MANAGER_TASK_PID)' > $WORLD/listen; echo $$ >> $WORLD/listen; "
    "echo done > $WORLD/done\n"
    "exec sleep 60";

TEST_F(TaskTest, GivesTheChildACleanProcess) {
  AddShellTask("task", kLookAround);
  const int leaky = ::dup2(STDERR_FILENO, 77);
  const auto usr1_before = std::signal(SIGUSR1, SIG_IGN);
  sigset_t blocked;
  sigset_t before;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGUSR2);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  Task task("task");
  task.withIpcSocket(true);
  ExpectStarts(task);
  ASSERT_TRUE(WaitForFile(PathOf("done"), "done"));
  // The starter's own stay as they were.
  sigset_t now;
  ::pthread_sigmask(SIG_SETMASK, &before, &now);
  EXPECT_TRUE(::sigismember(&now, SIGUSR2));
  EXPECT_FALSE(::sigismember(&now, SIGTERM));
  EXPECT_EQ(std::signal(SIGUSR1, usr1_before), SIG_IGN);
  ::close(leaky);

  const QByteArray descriptors = ReadFile(PathOf("fds"));
  EXPECT_TRUE(descriptors.contains(" 0 -> /dev/null")) << descriptors.toStdString();
  EXPECT_TRUE(descriptors.contains(" 2 -> pipe:")) << descriptors.toStdString();
  EXPECT_TRUE(descriptors.contains(" 3 -> socket:")) << descriptors.toStdString();
  // The shell keeps some of its own from 10 on.
  for (const char* open : {" 4 -> ", " 5 -> ", " 6 -> ", " 7 -> ", " 8 -> ", " 9 -> ", " 77 -> "}) {
    EXPECT_FALSE(descriptors.contains(open)) << descriptors.toStdString();
  }
  const QByteArray signal_state = ReadFile(PathOf("signals"));
  EXPECT_TRUE(signal_state.contains("SigBlk:\t0000000000000000")) << signal_state.toStdString();
  EXPECT_TRUE(signal_state.contains("SigIgn:\t0000000000000000")) << signal_state.toStdString();
}

TEST_F(TaskTest, HandsOverTheSocketAsSocketActivationDoes) {
  AddShellTask("task", kLookAround);
  const ScopedVariable foreign("LISTEN_FDS", "5");
  Task task("task");
  task.withIpcSocket(true);
  ExpectStarts(task);
  ASSERT_TRUE(WaitForFile(PathOf("done"), "done"));
  QList<QByteArray> lines = ReadFile(PathOf("listen")).trimmed().split('\n');
  const QByteArray pid = lines.takeLast();
  EXPECT_TRUE(lines.contains("LISTEN_FDS=1"));
  EXPECT_TRUE(lines.contains("LISTEN_PID=" + pid));
  EXPECT_TRUE(lines.contains("LISTEN_FDNAMES=task"));
  EXPECT_EQ(lines.size(), 3);
}

TEST_F(TaskTest, GivesNoSocketToATaskThatWantsNone) {
  AddShellTask("task", kLookAround);
  const ScopedVariable foreign_count("LISTEN_FDS", "1");
  const ScopedVariable foreign_pid("LISTEN_PID", QByteArray::number(::getpid()));
  const ScopedVariable foreign_task("RUNTIME_MANAGER_TASK_PID", QByteArray::number(::getpid()));
  Task task("task");
  ExpectStarts(task);
  ASSERT_TRUE(WaitForFile(PathOf("done"), "done"));
  const QList<QByteArray> lines = ReadFile(PathOf("listen")).trimmed().split('\n');
  ASSERT_EQ(lines.size(), 2) << "nothing of socket activation";
  EXPECT_EQ(lines[0], "RUNTIME_MANAGER_TASK_PID=" + lines[1]);
  EXPECT_FALSE(ReadFile(PathOf("fds")).contains(" 3 -> "));
}

TEST_F(TaskTest, SaysOnceHowATaskEndedThatNobodyStopped) {
  AddShellTask("task", "for i in $(seq 1 99); do echo line $i >&2; done; exit 3");
  Task task("task");
  Outcomes finished;
  QObject::connect(&task, &Task::finished, finished.Recorder());
  ExpectStarts(task);
  const Error error = finished.Wait();
  EXPECT_EQ(error.code(), Error::kTaskExited);
  EXPECT_THAT(Text(error), HasSubstr("the task 'task' (process "));
  EXPECT_THAT(Text(error), ContainsRegex("exited with status 3 after [0-9]+(\\.[0-9])? m?s; "));
  EXPECT_THAT(Text(error), HasSubstr("; its last words: line 80 | line 81 | "));
  EXPECT_THAT(Text(error), testing::EndsWith(" | line 98 | line 99"));
  RunFor(100);
  EXPECT_EQ(finished.errors.size(), 1U);
}

TEST_F(TaskTest, SaysWhichSignalKilledATask) {
  AddShellTask("task", "sleep 1.2; kill -9 $$");
  Task task("task");
  Outcomes finished;
  QObject::connect(&task, &Task::finished, finished.Recorder());
  ExpectStarts(task);
  EXPECT_EQ(finished.Wait().code(), Error::kTaskKilled);
  EXPECT_THAT(Text(finished.Wait()),
              ContainsRegex("was killed by signal 9 \\(SIGKILL\\) after [1-9][0-9]*\\.[0-9] s$"));
}

TEST_F(TaskTest, TellsOfAnEndWithStatusZeroAsWell) {
  AddShellTask("task", "exit 0");
  Task task("task");
  Outcomes finished;
  QObject::connect(&task, &Task::finished, finished.Recorder());
  ExpectStarts(task);
  EXPECT_TRUE(finished.Wait().isError());
  EXPECT_THAT(Text(finished.Wait()), HasSubstr("exited with status 0"));
}

TEST_F(TaskTest, StopsWithSigtermAndCompletesWhenTheProcessIsReaped) {
  AddShellTask("task",
               "trap 'echo term > $WORLD/out; exit 0' TERM; echo $$ > $WORLD/pid\n"
               "while :; do sleep 0.05; done");
  Task task("task");
  Outcomes finished;
  Outcomes stopped;
  QObject::connect(&task, &Task::finished, finished.Recorder());
  ExpectStarts(task);
  const pid_t pid = PidIn("pid");
  task.stop({}, [&stopped, pid](const Error& error) {
    EXPECT_TRUE(IsGone(pid));
    stopped.errors.push_back(error);
  });
  EXPECT_FALSE(stopped.Arrived());
  EXPECT_FALSE(stopped.Wait().isError());
  EXPECT_TRUE(ReadFile(PathOf("out")).contains("term"));
  RunFor(100);
  EXPECT_FALSE(finished.Arrived());
  EXPECT_EQ(stopped.errors.size(), 1U);
}

constexpr char kStubborn[] = "trap '' TERM; echo $$ > $WORLD/pid; while :; do sleep 0.05; done";

TEST_F(TaskTest, KillsATaskThatDoesNotEndWithinThreeSeconds) {
  AddShellTask("task", kStubborn);
  Task task("task");
  ExpectStarts(task);
  PidIn("pid");
  QElapsedTimer timer;
  timer.start();
  Outcomes stopped;
  task.stop({}, stopped.Recorder());
  EXPECT_FALSE(stopped.Wait().isError());
  EXPECT_GE(timer.elapsed(), 2900);
}

TEST_F(TaskTest, KillsAtOnceWhenAskedTo) {
  AddShellTask("task", kStubborn);
  Task task("task");
  ExpectStarts(task);
  PidIn("pid");
  QElapsedTimer timer;
  timer.start();
  Outcomes asked;
  Outcomes killed;
  task.stop({}, asked.Recorder());
  task.stop(Task::StopFlag::Kill, killed.Recorder());
  EXPECT_FALSE(killed.Wait().isError());
  EXPECT_FALSE(asked.Wait().isError());
  EXPECT_LT(timer.elapsed(), 2900);
  EXPECT_EQ(asked.errors.size() + killed.errors.size(), 2U);
}

TEST_F(TaskTest, AnswersEveryStopByTheStateOfTheTask) {
  AddShellTask("task", "exit 0");
  Task task("task");
  Outcomes early;
  task.stop({}, early.Recorder());
  EXPECT_FALSE(early.Arrived());
  EXPECT_EQ(early.Wait().code(), Error::kWrongState);
  Outcomes finished;
  QObject::connect(&task, &Task::finished, finished.Recorder());
  ExpectStarts(task);
  finished.Wait();
  Outcomes late;
  task.stop({}, late.Recorder());
  EXPECT_FALSE(late.Arrived());
  EXPECT_FALSE(late.Wait().isError());
  Task never_ran("nowhere");
  never_ran.start({});
  Outcomes failed;
  never_ran.stop({}, failed.Recorder());
  EXPECT_FALSE(failed.Wait().isError());
}

TEST_F(TaskTest, CompletesBothWhenItIsStoppedBeforeItHasStarted) {
  AddShellTask("task", "exec sleep 60");
  Task task("task");
  std::vector<std::string> order;
  task.start([&order](const Error& error) { order.push_back("start " + Text(error)); });
  task.stop({}, [&order](const Error& error) { order.push_back("stop " + Text(error)); });
  ASSERT_TRUE(RunUntil([&order] { return order.size() == 2; }));
  EXPECT_THAT(order[0], HasSubstr("was stopped before it had started"));
  EXPECT_EQ(order[1], "stop ");
}

TEST_F(TaskTest, EndsTheProcessOfADestroyedTaskWithoutAWord) {
  AddShellTask("task", "echo $$ > $WORLD/pid; exec sleep 60");
  auto task = std::make_unique<Task>("task");
  task->withIpcSocket(true);
  Outcomes finished;
  Outcomes stopped;
  QObject::connect(task.get(), &Task::finished, finished.Recorder());
  ExpectStarts(*task);
  const pid_t pid = PidIn("pid");
  task->stop({}, stopped.Recorder());
  task.reset();
  EXPECT_TRUE(SocketFiles().isEmpty());
  EXPECT_TRUE(RunUntil([pid] { return IsGone(pid); }));
  EXPECT_FALSE(stopped.Arrived());
  EXPECT_FALSE(finished.Arrived());
}

TEST_F(TaskTest, KillsTheProcessOfADestroyedTaskThatDoesNotEnd) {
  AddShellTask("task", kStubborn);
  auto task = std::make_unique<Task>("task");
  ExpectStarts(*task);
  const pid_t pid = PidIn("pid");
  task.reset();
  EXPECT_TRUE(RunUntil([pid] { return IsGone(pid); }));
}

TEST_F(TaskTest, CallsNothingWhenItIsDestroyedRightAfterTheStart) {
  AddShellTask("task", "exec sleep 60");
  Outcomes good;
  Outcomes bad;
  {
    Task task("task");
    Task missing("nowhere");
    task.start(good.Recorder());
    missing.start(bad.Recorder());
  }
  RunFor(200);
  EXPECT_FALSE(good.Arrived());
  EXPECT_FALSE(bad.Arrived());
}

TEST_F(TaskTest, MayBeDestroyedFromInsideItsOwnCallbacks) {
  AddShellTask("runs", "exec sleep 60");
  AddShellTask("ends", "exit 1");
  int destroyed = 0;
  auto* in_start = new Task("runs");
  in_start->start([in_start, &destroyed](const Error&) {
    delete in_start;
    ++destroyed;
  });
  auto* in_failure = new Task("nowhere");
  in_failure->start([in_failure, &destroyed](const Error&) {
    delete in_failure;
    ++destroyed;
  });
  auto* in_finished = new Task("ends");
  QObject::connect(in_finished, &Task::finished, [in_finished, &destroyed] {
    delete in_finished;
    ++destroyed;
  });
  in_finished->start({});
  auto* in_stop = new Task("runs");
  in_stop->start([in_stop, &destroyed](const Error&) {
    in_stop->stop({}, [in_stop, &destroyed](const Error&) {
      delete in_stop;
      ++destroyed;
    });
    in_stop->stop({}, [](const Error&) { ADD_FAILURE() << "the task is gone"; });
  });
  EXPECT_TRUE(RunUntil([&destroyed] { return destroyed == 4; }));
}

TEST_F(TaskTest, CopesWithAnApplicationThatIgnoresItsChildren) {
  AddShellTask("ends", "exit 5");
  AddShellTask("runs", "exec sleep 60");
  const auto before = std::signal(SIGCHLD, SIG_IGN);
  Task ends("ends");
  Outcomes finished;
  QObject::connect(&ends, &Task::finished, finished.Recorder());
  ends.start({});
  EXPECT_TRUE(finished.Wait().isError());
  Task runs("runs");
  ExpectStarts(runs);
  Outcomes stopped;
  runs.stop({}, stopped.Recorder());
  EXPECT_FALSE(stopped.Wait().isError());
  EXPECT_EQ(std::signal(SIGCHLD, before), SIG_IGN);
}

TEST_F(TaskTest, SaysThatItIsOutOfDescriptors) {
  AddShellTask("task", "");
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const int highest = ::dup(STDERR_FILENO);
  ::close(highest);
  rlimit tight = before;
  tight.rlim_cur = static_cast<rlim_t>(highest) + 2;
  Task task("task");
  task.withIpcSocket(true);
  Outcomes started;
  const WarningCatcher warnings;
  ::setrlimit(RLIMIT_NOFILE, &tight);
  task.start(started.Recorder());
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(warnings.Count("Bad file descriptor"), 0) << "the cause, not what follows from it";
  EXPECT_THAT(Text(started.Wait()), HasSubstr("Too many open files"));
}

// However far it has come, and although the Task lives on.
TEST_F(TaskTest, KeepsNoSocketWhenItIsOutOfDescriptors) {
  AddShellTask("task", "exec sleep 60");
  rlimit before{};
  ::getrlimit(RLIMIT_NOFILE, &before);
  const int highest = ::dup(STDERR_FILENO);
  ::close(highest);
  bool has_started = false;
  for (rlim_t more = 1; !has_started && !HasFailure(); ++more) {
    const auto sockets = [] { return OpenDescriptors().filter("socket:"); };
    const QStringList sockets_before = sockets();
    Task task("task");
    task.withIpcSocket(true);
    Outcomes started;
    rlimit tight = before;
    tight.rlim_cur = static_cast<rlim_t>(highest) + more;
    ::setrlimit(RLIMIT_NOFILE, &tight);
    task.start(started.Recorder());
    ::setrlimit(RLIMIT_NOFILE, &before);
    has_started = !started.Wait().isError();
    EXPECT_TRUE(has_started || sockets() == sockets_before) << more;
    EXPECT_TRUE(has_started || SocketFiles().isEmpty()) << more;
  }
}

}  // namespace
}  // namespace kit

// What becomes of tasks when the process that started them ends, or is copied.
#include <gmock/gmock.h>
#include <unistd.h>

#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <csignal>

#include "kit.h"

namespace kit {
namespace {

class StartersEnd : public PlatformTest {
 protected:
  // Ends when all four have been told to: one that ends before the next is told would be killed.
  static constexpr char kSociable[] =
      "trap 'touch $WORLD/told.$$; told=0\n"
      "while [ $told -lt 4 ]; do set -- $WORLD/told.*; told=$#; done\n"
      "touch $WORLD/ended.$$; exit 0' TERM; touch $WORLD/ready.$$\n"
      "while :; do sleep 0.05; done";

  // A starter of four such tasks leaves.
  void Leave(const char* how) {
    for (const QString& name : QDir(PathOf("")).entryList({"ready.*", "told.*", "ended.*"})) {
      QFile::remove(PathOf(name));
    }
    Process starter(HELPER, {"many", "sociable", "4", how});
    EXPECT_EQ(starter.ReadLine(), "started");
    EXPECT_EQ(starter.ReadLine(), "leaves");
    EXPECT_EQ(starter.Wait(), 0);
  }
  pid_t PidOfTheStubborn() {
    EXPECT_TRUE(WaitForFile(PathOf("pid"), "\n"));
    const auto pid = static_cast<pid_t>(ReadFile(PathOf("pid")).trimmed().toInt());
    QFile::remove(PathOf("pid"));
    return pid;
  }
  int CountEnded() { return QDir(PathOf("")).entryList({"ended.*"}).size(); }
};

// Nobody stopped them.
TEST_F(StartersEnd, EndsAllItsTasksAtOnce) {
  AddShellTask("sociable", kSociable);
  for (const char* how : {"exit", "kept", "destroyed"}) {
    Leave(how);
    EXPECT_EQ(CountEnded(), 4) << how;
  }
}

// Nor does it wait for one after the other where none of them ends: each would take three seconds.
TEST_F(StartersEnd, KillsAllThatAreLeftAtOneDeadline) {
  constexpr int kTasks = 4;
  AddShellTask("stubborn", "trap '' TERM; echo $$ > $WORLD/ready.$$; while :; do sleep 0.05; done");
  Process starter(HELPER, {"many", "stubborn", QString::number(kTasks), "exit"});
  EXPECT_EQ(starter.ReadLine(), "started");
  EXPECT_EQ(starter.ReadLine(), "leaves");
  QElapsedTimer timer;
  timer.start();
  EXPECT_EQ(starter.Wait(), 0);
  EXPECT_LT(timer.elapsed(), 10'000);
  const QStringList tasks = QDir(PathOf("")).entryList({"ready.*"});
  EXPECT_EQ(tasks.size(), kTasks);
  for (const QString& task : tasks) {
    EXPECT_TRUE(IsGone(task.section('.', 1).toInt())) << task.toStdString();
  }
}

// The task hears its starter's last message before SIGTERM, and its socket's file is there for so
// long.
TEST_F(StartersEnd, SendsWhatWaitsThenEndsItsTasksThenRemovesTheirFiles) {
  AddPythonTask("task",
                "signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM})\n"
                "file = os.path.basename(server.getsockname())[1:]\n"
                "path = os.environ['XDG_RUNTIME_DIR'] + '/runtime-manager/' + file\n"
                "c, _ = server.accept()\n"
                "c.sendall(b'{\"data\":\"1\"}\\n{\"data\":\"2\"}\\n{\"data\":\"3\"}\\n')\n"
                "got = c.recv(100).decode()\n"
                "signal.sigwait({signal.SIGTERM})\n"
                "end = open(os.environ['WORLD'] + '/end', 'w')\n"
                "end.write(got + str(os.path.exists(path)))");
  Process starter(HELPER, {"leave", "task", "exit"});
  EXPECT_EQ(starter.Wait(), 0);
  EXPECT_EQ(ReadFile(PathOf("end")), "{\"data\":\"first\"}\nTrue");
}

TEST_F(StartersEnd, LeavesNoWordOfItsOwn) {
  AddShellTask("sociable", kSociable);
  for (const char* how : {"exit", "kept", "destroyed"}) {
    StderrPipe words;
    Leave(how);
    EXPECT_EQ(words.ReadToEnd().toStdString(), "") << how;
  }
}

// It takes no more than the library: it may serve its socket, not have come to that, or have none. What
// it leaves behind is its starter's: the file of its own socket.
TEST_F(StartersEnd, IsFollowedByATaskThatIgnoresSigterm) {
  AddHelperTask("echo");
  const std::map<std::string, int> files_left = {
      {"serving", 1}, {"idle", 1}, {"bare", 0}, {"starter", 1}};
  for (const auto& [how_it_is, files] : files_left) {
    const QString how = QString::fromStdString(how_it_is);
    AddShellTask(how, "exec " HELPER " stubborn " + how.toUtf8() + " 2> $WORLD/words");
    Process starter(HELPER, {"start", how, how});
    EXPECT_THAT(starter.ReadLine(), testing::StartsWith("started "));
    const pid_t pid = PidOfTheStubborn();
    QElapsedTimer timer;
    timer.start();
    starter.Kill();
    starter.Wait();
    EXPECT_FALSE(IsGone(pid)) << how_it_is;
    EXPECT_TRUE(RunUntil([pid] { return IsGone(pid); })) << how_it_is;
    EXPECT_GE(timer.elapsed(), 2500) << how_it_is;
    const std::string task = files == 0 ? "platform_helper" : how_it_is;
    EXPECT_THAT(
        ReadFile(PathOf("words")).toStdString(),
        testing::HasSubstr("the task '" + task + "' ends: its starter ended 3 seconds ago"));
    EXPECT_EQ(SocketFiles().size(), files) << how_it_is;
    EXPECT_FALSE(QFile::exists(PathOf("exited"))) << "what it has for its own exit is not run";
    for (const QString& name : SocketFiles()) {
      QFile::remove(RuntimeFolder() + '/' + name);
    }
  }
}

// What a person or a service manager has started with a socket has no starter to follow.
TEST_F(StartersEnd, IsNotFollowedByAProcessThatIsNoTask) {
  QFile script(PathOf("activate"));
  ASSERT_TRUE(script.open(QIODevice::WriteOnly));
  script.write(
      "import os, socket, time\n"
      "server = socket.socket(socket.AF_UNIX)\n"
      "server.bind(os.environ['WORLD'] + '/server')\n"
      "server.listen()\n"
      "if os.fork() == 0:\n"
      "  os.dup2(server.fileno(), 3)\n"
      "  os.set_inheritable(3, True)\n"
      "  os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS='1')\n"
      "  os.execv('" HELPER
      "', ['helper', 'stubborn', 'serving'])\n"
      "while not os.path.exists(os.environ['WORLD'] + '/pid'): time.sleep(0.01)\n");
  script.close();
  EXPECT_EQ(Process(PYTHON, {"-S", script.fileName()}).Wait(), 0);
  const pid_t pid = PidOfTheStubborn();
  RunFor(4500);
  // A dead process that nobody has reaped yet has none.
  EXPECT_NE(ReadFile(QString("/proc/%1/cmdline").arg(pid)), "");
  ::kill(pid, SIGKILL);
}

// A copy does not have the threads of the original: sanitizers say that they leak in it.
class CopyOfAStarter : public StartersEnd {
 protected:
  // Those of the address sanitizer's allocator, which a copy is left with.
  static constexpr bool kAllocatorsLock =
#ifdef FORKS_LOSE_THE_ALLOCATORS_LOCKS
      true;
#else
      false;
#endif

 private:
  const ScopedVariable asan_{"ASAN_OPTIONS", qgetenv("ASAN_OPTIONS") + ":detect_leaks=0"};
  const ScopedVariable tsan_{"TSAN_OPTIONS", qgetenv("TSAN_OPTIONS") + ":report_thread_leaks=0"};
};

TEST_F(CopyOfAStarter, DoesNothingToTheTaskWhenItEnds) {
  AddHelperTask("echo");
  for (const char* how : {"exit", "return"}) {
    Process starter(HELPER, {"fork", "echo", how});
    EXPECT_EQ(starter.ReadLine(), "copies 1 whole 1 lost 0 file 1 ") << how;
    EXPECT_EQ(starter.Wait(), 0) << how;
  }
}

// Those locks are held in it for ever, by threads that it does not have.
TEST_F(CopyOfAStarter, WaitsForNoLockThatAThreadOfTheOriginalHoldsWhileItSends) {
  if (kAllocatorsLock) {
    GTEST_SKIP() << "the address sanitizer's allocator does not survive a fork among threads";
  }
  const ScopedVariable bound("RUNTIME_MANAGER_MAX_MESSAGE", "100000");
  AddHelperTask("echo");
  StderrPipe words;
  Process starter(HELPER, {"fork-in-handlers", "echo"});
  EXPECT_EQ(starter.ReadLine(), "done 1 well 1");
  EXPECT_EQ(starter.Wait(), 0);
  // It is told that it sends nothing.
  EXPECT_THAT(
      words.ReadToEnd().toStdString(),
      testing::ContainsRegex("messages to task 'echo' are dropped: process [0-9]+ is a forked "
                             "copy of process [0-9]+"));
}

TEST_F(CopyOfAStarter, WaitsForNoLockThatAThreadOfTheOriginalHoldsForTheListOfTasks) {
  if (kAllocatorsLock) {
    GTEST_SKIP() << "the address sanitizer's allocator does not survive a fork among threads";
  }
  AddHelperTask("echo");
  Process starter(HELPER, {"fork-while-making-tasks", "echo"});
  EXPECT_EQ(starter.ReadLine(), "well 1");
  EXPECT_EQ(starter.Wait(), 0);
}

}  // namespace
}  // namespace kit

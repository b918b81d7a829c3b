// What tasks write to their standard error, on its way through the process that started them.
#include <RuntimeManager/Task.h>
#include <gmock/gmock.h>

#include <QtCore/QFile>
#include <QtCore/QThread>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <memory>
#include <mutex>
#include <thread>

#include "kit.h"

namespace kit {
namespace {

using testing::HasSubstr;

class TaskStderr : public PlatformTest {
 protected:
  // A task that writes so many 'x' to its standard error and ends with status 3.
  void AddLoudTask(const QString& name, int size) {
    AddShellTask(name, "head -c " + QByteArray::number(size) +
                           " /dev/zero | tr '\\0' x >&2\n"
                           "exit 3");
  }
  // Reads until so many 'x' have come.
  static bool WaitForLoudness(const StderrPipe& pipe, int size) {
    int count = 0;
    return RunUntil([&count, &pipe, size] {
      count += pipe.Read(1 << 20).count('x');
      return count == size;
    });
  }
  // Starts a task, waits for its end, and forgets it. What its end is said to be.
  static std::string RunToItsEnd(const QString& name) {
    Task task(name);
    Outcomes finished;
    QObject::connect(&task, &Task::finished, finished.Recorder());
    task.start({});
    return finished.Wait().message().toStdString();
  }
};

TEST_F(TaskStderr, IsForwarded) {
  AddShellTask("task", "echo first >&2; echo second >&2; exit 1");
  StderrPipe pipe;
  RunToItsEnd("task");
  EXPECT_EQ(pipe.ReadToEnd(), "first\nsecond\n");
}

TEST_F(TaskStderr, IsCopiedToAFileThatIsTheUsersAlone) {
  AddShellTask("task", "echo first >&2; echo second >&2; exit 1");
  const ScopedVariable copy("RUNTIME_MANAGER_STDERR", PathOf("copy").toUtf8());
  StderrPipe pipe;
  RunToItsEnd("task");
  RunToItsEnd("task");
  EXPECT_EQ(pipe.ReadToEnd(), "first\nsecond\nfirst\nsecond\n");
  EXPECT_EQ(ReadFile(PathOf("copy")), "first\nsecond\nfirst\nsecond\n");
  EXPECT_EQ(QFile::permissions(PathOf("copy")) & (QFile::ReadGroup | QFile::ReadOther), 0);
}

TEST_F(TaskStderr, IsForwardedAllTheSameWhereItCannotBeCopied) {
  AddShellTask("task", "echo first >&2; exit 1");
  const ScopedVariable copy("RUNTIME_MANAGER_STDERR", PathOf("no/such/folder").toUtf8());
  const WarningCatcher warnings;
  StderrPipe pipe;
  RunToItsEnd("task");
  EXPECT_THAT(pipe.ReadToEnd().toStdString(), HasSubstr("first\n"));
  EXPECT_EQ(warnings.Count("the standard error of the task 'task' is not copied: "
                           "RUNTIME_MANAGER_STDERR '"),
            1);
}

TEST_F(TaskStderr, IsForwardedAllTheSameWhereItsCopyIsFull) {
  AddShellTask("task", "echo first >&2; exit 1");
  const ScopedVariable copy("RUNTIME_MANAGER_STDERR", "/dev/full");
  const WarningCatcher warnings;
  StderrPipe pipe;
  RunToItsEnd("task");
  EXPECT_THAT(pipe.ReadToEnd().toStdString(), HasSubstr("first\n"));
  EXPECT_EQ(warnings.Count("the copy of the standard error of the task 'task' in "
                           "RUNTIME_MANAGER_STDERR ends here: No space left on device"),
            1);
}

TEST_F(TaskStderr, IsQuotedInOneLineWithoutControlCharacters) {
  AddShellTask("task", "printf '\\033[2Jfirst\\nsecond \\377\\r\\n' >&2; exit 1");
  const StderrPipe pipe;
  EXPECT_THAT(RunToItsEnd("task"),
              testing::EndsWith("; its last words: \\x1b[2Jfirst | second \\xff\\x0d"));
}

TEST_F(TaskStderr, IsQuotedWithItsEndWhenItIsLong) {
  AddShellTask("task", "head -c 30000 /dev/zero >&2; echo the end >&2; exit 1");
  const StderrPipe pipe;
  const std::string text = RunToItsEnd("task");
  EXPECT_THAT(text, testing::EndsWith("\\x00the end"));
  EXPECT_LT(text.size(), 8500U);
}

TEST_F(TaskStderr, IsRememberedWhenNobodyReadsTheApplicationsAnyMore) {
  AddShellTask("task", "echo words >&2; exit 1");
  const auto before = std::signal(SIGPIPE, SIG_DFL);
  {
    StderrPipe pipe;
    pipe.CloseReadEnd();
    EXPECT_THAT(RunToItsEnd("task"), HasSubstr("words"));
  }
  EXPECT_EQ(std::signal(SIGPIPE, before), SIG_DFL);
}

TEST_F(TaskStderr, WaitsWithTheTaskWhileTheApplicationsTakesNothing) {
  AddShellTask("task",
               "head -c 300000 /dev/zero | tr '\\0' x >&2; echo > $WORLD/out; exec sleep 60");
  StderrPipe pipe;
  pipe.Fill();
  Task task("task");
  ExpectStarts(task);
  RunFor(300);
  EXPECT_FALSE(QFile::exists(PathOf("out"))) << "the task should wait for its reader";
  int forwarded = 0;
  EXPECT_TRUE(RunUntil([&forwarded, &pipe, this] {
    forwarded += pipe.Read(1 << 20).count('x');
    return QFile::exists(PathOf("out")) && forwarded == 300000;
  }));
}

TEST_F(TaskStderr, OutlivesATaskThatEndsWhileTheApplicationsTakesNothing) {
  AddLoudTask("task", 60000);
  StderrPipe pipe;
  pipe.Fill();
  EXPECT_THAT(RunToItsEnd("task"), HasSubstr("exited with status 3"));
  EXPECT_TRUE(WaitForLoudness(pipe, 60000));
}

TEST_F(TaskStderr, IsKeptForALimitedNumberOfDeadTasks) {
  AddLoudTask("task", 1000);
  StderrPipe pipe;
  pipe.Fill();
  for (int i = 0; i < 66; ++i) {
    RunToItsEnd("task");
  }
  EXPECT_TRUE(WaitForLoudness(pipe, 64 * 1000));
  RunFor(300);
  EXPECT_EQ(pipe.Read(1 << 20), "");
  // There is room for more again.
  pipe.Fill();
  RunToItsEnd("task");
  EXPECT_TRUE(WaitForLoudness(pipe, 1000));
}

TEST_F(TaskStderr, NeverBlocksTheApplicationHoweverLittleItsOwnTakes) {
  AddLoudTask("task", 60000);
  for (Stream (*const make)() : {MakePipe, MakeTerminal}) {
    StderrPipe pipe(make());
    pipe.Fill();
    RunToItsEnd("task");
    const Rescuer rescuer(pipe);
    // For a part of what waits.
    pipe.MakeRoom();
    RunFor(300);
    EXPECT_FALSE(rescuer.WasNeeded()) << (make == MakePipe ? "pipe" : "terminal");
    EXPECT_TRUE(rescuer.WasNeeded() || WaitForLoudness(pipe, 60000));
  }
}

// A program that leaves in good order while its task has something to say.
class StderrAtExit : public TaskStderr {
 protected:
  // A task that writes so many 'x' to its standard error when it is told to end.
  void AddTalkativeTask(int size) {
    AddShellTask("task",
                 "trap 'head -c " + QByteArray::number(size) +
                     " /dev/zero | tr \"\\\\0\" x >&2; echo clean > $WORLD/end; exit 0' TERM\n"
                     "echo $$ > $WORLD/pid; while :; do sleep 0.05; done");
  }
  void TellToGo() {
    ASSERT_TRUE(WaitForFile(PathOf("pid"), "\n"));
    QFile go(PathOf("go"));
    ASSERT_TRUE(go.open(QIODevice::WriteOnly));
  }
  void Forget() {
    for (const char* file : {"pid", "go", "end"}) {
      QFile::remove(PathOf(file));
    }
  }
};

TEST_F(StderrAtExit, IsReadUntilTheTaskHasEndedHoweverMuchItWrites) {
  for (const int size : {100, 200000}) {
    for (const char* how : {"quit", "delete"}) {
      Forget();
      AddTalkativeTask(size);
      StderrPipe pipe;
      Process starter(HELPER, {"start", "task", how, "told"});
      TellToGo();
      EXPECT_EQ(pipe.ReadToEnd().count('x'), size) << how;
      EXPECT_EQ(starter.Wait(), 0) << how;
      EXPECT_EQ(ReadFile(PathOf("end")), "clean\n") << how;
    }
  }
}

TEST_F(StderrAtExit, IsReadWhenTheThreadOfTheTaskEnds) {
  AddTalkativeTask(200000);
  StderrPipe pipe;
  QThread thread;
  auto* task = new Task("task");
  task->moveToThread(&thread);
  QObject::connect(&thread, &QThread::started, task, [task] { task->start({}); });
  QObject::connect(&thread, &QThread::finished, task, &QObject::deleteLater);
  // The thread sanitizer sees this order; it does not see the one that Qt makes by wait().
  std::atomic<bool> is_gone{false};
  QObject::connect(task, &QObject::destroyed, [&is_gone] { is_gone.store(true); });
  thread.start();
  EXPECT_TRUE(WaitForFile(PathOf("pid"), "\n"));
  thread.quit();
  EXPECT_TRUE(WaitForLoudness(pipe, 200000));
  EXPECT_TRUE(thread.wait());
  EXPECT_TRUE(is_gone.load());
  EXPECT_EQ(ReadFile(PathOf("end")), "clean\n");
}

TEST_F(StderrAtExit, OfADeadTaskIsForwardedToASlowReader) {
  AddLoudTask("task", 60000);
  for (const char* how : {"quit", "exit"}) {
    StderrPipe pipe;
    pipe.Fill();
    Process starter(HELPER, {"start", "task", how, "ended"});
    pipe.Restore();
    // Less than the program waits for a reader.
    RunFor(300);
    EXPECT_EQ(pipe.ReadToEnd().count('x'), 60000) << how;
    EXPECT_EQ(starter.Wait(), 0) << how;
  }
}

TEST_F(StderrAtExit, DoesNotKeepAProgramWhoseOwnTakesNothing) {
  AddLoudTask("task", 60000);
  for (const char* how : {"quit", "exit"}) {
    StderrPipe pipe;
    pipe.Fill();
    const Rescuer rescuer(pipe);
    Process starter(HELPER, {"start", "task", how, "ended"});
    EXPECT_EQ(starter.Wait(), 0) << how;
    EXPECT_FALSE(rescuer.WasNeeded()) << how;
  }
}

TEST_F(StderrAtExit, IsWaitedForOnceHoweverManyTasksHaveDied) {
  AddLoudTask("task", 1000);
  StderrPipe pipe;
  pipe.Fill();
  std::atomic<bool> is_done{false};  // as above
  const std::unique_ptr<QThread> thread(QThread::create([&is_done] {
    for (int i = 0; i < 10; ++i) {
      RunToItsEnd("task");
    }
    is_done.store(true);
  }));
  thread->start();
  EXPECT_TRUE(thread->wait(20000));
  while (!thread->isFinished()) {
    pipe.Read(1 << 20);
  }
  EXPECT_TRUE(is_done.load());
}

}  // namespace
}  // namespace kit

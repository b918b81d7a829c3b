// What tasks write to their standard error, on its way through the process that started them.
#include <RuntimeManager/Task.h>
#include <gmock/gmock.h>

#include <QtCore/QFile>
#include <csignal>

#include "kit.h"

namespace kit {
namespace {

using testing::HasSubstr;

class TaskStderr : public PlatformTest {
 protected:
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

}  // namespace
}  // namespace kit

// What a task has from the process that starts it.
#include <RuntimeManager/Task.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QtCore/QDir>
#include <csignal>

#include "kit.h"

namespace kit {
namespace {

class TaskInherits : public PlatformTest {
 protected:
  // What a shell script prints that runs as a task.
  std::string Said(const QByteArray& script) {
    AddShellTask("task", "{ " + script + "; } > $WORLD/o; mv $WORLD/o $WORLD/said");
    Task task("task");
    ExpectStarts(task);
    EXPECT_TRUE(RunUntil([this] { return QFile::exists(PathOf("said")); }));
    return ReadFile(PathOf("said")).trimmed().toStdString();
  }
};

TEST_F(TaskInherits, TheEnvironmentOfTheMomentOfItsStart) {
  const ScopedVariable set("TARV_TEST_VARIABLE", "one two");
  EXPECT_EQ(Said("printenv TARV_TEST_VARIABLE"), "one two");
}

TEST_F(TaskInherits, TheWorkingFolder) {
  const QString before = QDir::currentPath();
  ASSERT_TRUE(QDir(PathOf("")).mkdir("here"));
  ASSERT_TRUE(QDir::setCurrent(PathOf("here")));
  EXPECT_EQ(Said("pwd -P"), QDir(PathOf("here")).canonicalPath().toStdString());
  QDir::setCurrent(before);
}

TEST_F(TaskInherits, TheUmask) {
  const mode_t before = ::umask(027);
  EXPECT_EQ(Said("umask"), "0027");
  ::umask(before);
}

TEST_F(TaskInherits, TheLimits) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit other = before;
  other.rlim_cur = 321;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &other), 0);
  EXPECT_EQ(Said("ulimit -Sn; ulimit -Hn"),
            "321\n" + (before.rlim_max == RLIM_INFINITY ? std::string("unlimited")
                                                        : std::to_string(before.rlim_max)));
  ::setrlimit(RLIMIT_NOFILE, &before);
}

TEST_F(TaskInherits, ThePriority) {
  EXPECT_EQ(Said("nice"), std::to_string(::getpriority(PRIO_PROCESS, 0)));
}

TEST_F(TaskInherits, TheProcessGroupAndTheSession) {
  EXPECT_EQ(Said("cut -d ' ' -f 5,6 /proc/$$/stat"),
            std::to_string(::getpgrp()) + ' ' + std::to_string(::getsid(0)));
}

// As the terminal does it: to the whole group of the program.
TEST_F(TaskInherits, TheInterruptsOfItsProgramsTerminal) {
  AddShellTask("task",
               "trap '' TERM; trap 'echo interrupted > $WORLD/end; exit 0' INT\n"
               "cut -d ' ' -f 5 /proc/$$/stat > $WORLD/group; while :; do sleep 0.05; done");
  Process program("/usr/bin/setsid", {HELPER, "start", "task"});
  EXPECT_THAT(program.ReadLine(), testing::StartsWith("started "));
  ASSERT_TRUE(WaitForFile(PathOf("group"), "\n"));
  const auto group = static_cast<pid_t>(ReadFile(PathOf("group")).trimmed().toInt());
  ASSERT_GT(group, 1);
  ASSERT_NE(group, ::getpgrp());
  ASSERT_EQ(::kill(-group, SIGINT), 0);
  EXPECT_TRUE(WaitForFile(PathOf("end"), "interrupted"));
  EXPECT_EQ(program.Wait(), SIGINT) << "the group is the program's own";
  for (const QString& left : SocketFiles()) {
    QFile::remove(RuntimeFolder() + '/' + left);
  }
}

}  // namespace
}  // namespace kit

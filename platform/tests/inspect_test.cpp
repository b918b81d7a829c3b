// What tools are told of the workstation.
#include <RuntimeManager/Inspect.h>
#include <RuntimeManager/RuntimeDispatcher.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QtCore/QDir>
#include <QtCore/QFile>

#include "kit.h"

namespace kit {
namespace {

namespace inspect = RuntimeManager::inspect;

class InspectTest : public PlatformTest {};

const inspect::FoundTask* Find(const std::vector<inspect::FoundTask>& tasks, const QString& name) {
  for (const auto& task : tasks) {
    if (task.name == name) {
      return &task;
    }
  }
  return nullptr;
}

TEST_F(InspectTest, ListsTheTasksThatCanBeStarted) {
  AddHelperTask("echo");
  AddShellTask("script", "exit 0\n");
  const auto tasks = inspect::tasks();
  for (const char* name : {"echo", "script"}) {
    const auto* const task = Find(tasks, name);
    ASSERT_NE(task, nullptr) << name;
    EXPECT_EQ(task->folder, PathOf("tasks"));
    EXPECT_EQ(task->problem, "");
  }
}

TEST_F(InspectTest, SaysWhatIsWrongWithTheOthers) {
  QDir(PathOf("tasks")).mkdir("folder");
  QFile::link("/no/such/file", PathOf("tasks/dangling"));
  QFile plain(PathOf("tasks/plain"));
  ASSERT_TRUE(plain.open(QIODevice::WriteOnly));
  const auto tasks = inspect::tasks();
  EXPECT_TRUE(Find(tasks, "folder")->problem.contains("is not a regular file"));
  EXPECT_TRUE(Find(tasks, "dangling")->problem.contains("a link that leads nowhere"));
  EXPECT_TRUE(Find(tasks, "plain")->problem.contains("chmod +x"));
}

TEST_F(InspectTest, TellsTheRuntimeFolderWithoutMakingIt) {
  EXPECT_FALSE(inspect::runtimeFolder().exists);
  EXPECT_EQ(inspect::runtimeFolder().path, RuntimeFolder());
  EXPECT_FALSE(QFile::exists(RuntimeFolder()));
  ASSERT_TRUE(QDir().mkpath(RuntimeFolder()));
  ASSERT_EQ(::chmod(RuntimeFolder().toUtf8().constData(), 0755), 0);
  EXPECT_EQ(inspect::runtimeFolder().mode, 0755U);
  EXPECT_TRUE(inspect::runtimeFolder().problem.contains("chmod 700"));
  ASSERT_EQ(::chmod(RuntimeFolder().toUtf8().constData(), 0700), 0);
  EXPECT_EQ(inspect::runtimeFolder().problem, "");
}

TEST_F(InspectTest, TellsSocketsOfTheLivingFromThoseOfTheDead) {
  AddShellTask("sleeper", "exec sleep 60\n");
  Task task("sleeper");
  task.withIpcSocket(true);
  ExpectStarts(task);
  const int socket = ListenOn(RuntimeFolder() + "/1-1-1.sock");
  ::close(socket);
  const auto sockets = inspect::taskSockets();
  ASSERT_EQ(sockets.size(), 2U);
  EXPECT_EQ(sockets[0].name, "1-1-1.sock");
  EXPECT_FALSE(sockets[0].live);
  EXPECT_EQ(sockets[1].path, task.socketPath());
  EXPECT_TRUE(sockets[1].live);
  QFile::remove(RuntimeFolder() + "/1-1-1.sock");
}

TEST_F(InspectTest, TellsWhichIntentsHaveALiveOwner) {
  EXPECT_TRUE(inspect::intents().empty());
  ASSERT_TRUE(QDir().mkpath(RuntimeFolder() + "/intents"));
  const int living = ListenOn(RuntimeFolder() + "/intents/living");
  ::close(ListenOn(RuntimeFolder() + "/intents/dead"));
  const auto intents = inspect::intents();
  ASSERT_EQ(intents.size(), 2U);
  EXPECT_EQ(intents[0].name, "dead");
  EXPECT_FALSE(intents[0].live);
  EXPECT_EQ(intents[1].name, "living");
  EXPECT_TRUE(intents[1].live);
  ::close(living);
}

TEST_F(InspectTest, TellsLimitsAndWhatIsWrongWithThem) {
  const ScopedVariable good("RUNTIME_MANAGER_MAX_MESSAGE", "1000");
  const ScopedVariable bad("RUNTIME_MANAGER_MAX_QUEUE", "many");
  const auto limits = inspect::limits();
  ASSERT_EQ(limits.size(), 3U);
  EXPECT_EQ(limits[0].value, 1000U);
  EXPECT_EQ(limits[0].problem, "");
  EXPECT_EQ(limits[1].value, limits[1].by_default);
  EXPECT_TRUE(limits[1].problem.contains("RUNTIME_MANAGER_MAX_QUEUE is 'many'"));
  EXPECT_EQ(limits[2].unit, "seconds");
}

}  // namespace
}  // namespace kit

// What no real platform can be made to do at will: a start that completes too late or twice, a stop
// that fails, a platform without the optional signals.

#include "fake_platform.h"

#include <RuntimeManager/RuntimeDispatcher.h>
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>
#include <tarv/tarv_capi.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEvent>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

using RuntimeManager::Error;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;
using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(FakePlatform, TaskIsAskedForASocketAndGivenTheLibrariesFolder) {
  const Task& task = Start();
  EXPECT_EQ(task.name, "worker");
  EXPECT_EQ(task.parent(), nullptr);
  EXPECT_TRUE(task.has_socket);
  EXPECT_EQ(task.arguments, QStringList({"--libs-path", "/libs"}));
}

TEST_F(FakePlatform, ChannelOpensOnTheTasksSocketAndMessagesTravelAsData) {
  Start().complete_start(Error());
  ASSERT_EQ(TaskMessaging::GetAll().size(), 1U);
  TaskMessaging& channel = *TaskMessaging::GetAll()[0];
  EXPECT_EQ(channel.path, "/fake/worker");
  EXPECT_EQ(channel.parent(), nullptr);
  table_.SendMessage(client_, "grüß dich");
  EXPECT_THAT(channel.sent, ElementsAre(QJsonObject{{"data", "grüß dich"}}));
}

TEST_F(FakePlatform, PlatformWithoutTheOptionalSignalsStartsRelaysAndStops) {
  Task& task = Start();
  task.complete_start(Error());
  Q_EMIT TaskMessaging::GetAll().at(0)->messageReceived({{"data", "hello"}});
  table_.Release(client_);
  EXPECT_FALSE(task.stop_flags);
  task.complete_stop(Error());
  EXPECT_THAT(log_, ElementsAre("started 0 ", "message hello", "disconnect 0 ", "released"));
}

TEST_F(FakePlatform, StartThatCompletesAfterReleaseCallsNothing) {
  Task& task = Start();
  table_.Release(client_);
  task.complete_start(Error());
  EXPECT_THAT(log_, IsEmpty());
  EXPECT_THAT(TaskMessaging::GetAll(), IsEmpty());
}

TEST_F(FakePlatform, StartThatFailsAfterReleaseCallsNothingAndLogsNothing) {
  Task& task = Start();
  table_.Release(client_);
  EXPECT_EQ(StdoutOf([&task] { task.complete_start(Error(7, "no room")); }), "");
  EXPECT_THAT(log_, IsEmpty());
}

TEST_F(FakePlatform, StartThatCompletesAfterTheManagersReleaseCallsNothing) {
  const Task::Completion complete = Start().complete_start;
  root_.Release(manager_);
  RunDeferredDeletes();
  complete(Error());
  EXPECT_THAT(log_, ElementsAre("released"));
}

TEST_F(FakePlatform, StartThatCompletesTwiceCountsOnce) {
  Task& task = Start();
  task.complete_start(Error());
  task.complete_start(Error());
  task.complete_start(Error(7, "too late"));
  EXPECT_THAT(log_, ElementsAre("started 0 "));
  EXPECT_EQ(TaskMessaging::GetAll().size(), 1U);
}

TEST_F(FakePlatform, StartThatFailsHasTheFixedCodeWhateverThePlatformsIs) {
  Task& task = Start();
  const std::string output = StdoutOf([&task] { task.complete_start(Error(7, "no röom")); });
  EXPECT_THAT(log_, ElementsAre("started -32603 no röom"));
  EXPECT_THAT(output, IsLogLine("info", "[ta-rv] on started call error: no röom"));
}

TEST_F(FakePlatform, ErrorOnStopIsLoggedAndTheStopCompletesAsUsual) {
  Task& task = Start();
  task.complete_start(Error());
  table_.Release(client_);
  const std::string output = StdoutOf([&task] { task.complete_stop(Error(6, "will not die")); });
  EXPECT_THAT(output, IsLogLine("error", "[ta-rv] stop error: will not die"));
  EXPECT_THAT(log_, ElementsAre("started 0 ", "disconnect 0 ", "released"));
}

TEST_F(FakePlatform, ErrorsOfThePlatformAreLoggedWithoutControlCharactersAndReportedAsTheyCame) {
  Task& failing = Start();
  const std::string at_start =
      StdoutOf([&failing] { failing.complete_start(Error(7, "no\n[info]\x1b[2J")); });
  EXPECT_THAT(at_start, IsLogLine("info", "[ta-rv] on started call error: no\\n[info]\\x1b[2J"));
  EXPECT_THAT(log_, ElementsAre("started -32603 no\n[info]\x1b[2J"));
}

TEST_F(FakePlatform, ErrorOnStopIsLoggedWithoutControlCharacters) {
  Task& task = Start();
  task.complete_start(Error());
  table_.Release(client_);
  const std::string output = StdoutOf([&task] { task.complete_stop(Error(6, "a\nb")); });
  EXPECT_THAT(output, IsLogLine("error", "[ta-rv] stop error: a\\nb"));
}

TEST_F(FakePlatform, StopThatCompletesTwiceOrAfterTheManagersReleaseIsHarmless) {
  Task& task = Start();
  task.complete_start(Error());
  table_.Release(client_);
  const Task::Completion complete = task.complete_stop;
  complete(Error());
  complete(Error());
  root_.Release(manager_);
  RunDeferredDeletes();
  complete(Error());
  EXPECT_THAT(log_, ElementsAre("started 0 ", "disconnect 0 ", "released"));
}

TEST_F(FakePlatform, MessagesAfterReleaseAreNotHeard) {
  Start().complete_start(Error());
  const auto channel = TaskMessaging::GetAll().at(0);
  table_.Release(client_);
  ASSERT_FALSE(channel.isNull());
  Q_EMIT channel->messageReceived({{"data", "too late"}});
  EXPECT_THAT(log_, ElementsAre("started 0 ", "disconnect 0 "));
  RunDeferredDeletes();
  EXPECT_TRUE(channel.isNull());
}

TEST_F(FakePlatform, DestroyedClientsTaskIsDeletedButNotStopped) {
  Task& task = Start();
  task.complete_start(Error());
  root_.Release(manager_);
  EXPECT_FALSE(task.complete_stop);
  EXPECT_THAT(log_, ElementsAre("started 0 ", "released"));
}

TEST_F(FakePlatform, ServerListensOnTheSocketThatTheDispatcherNames) {
  _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
  server_table_.Run(server, nullptr);
  ASSERT_EQ(TaskMessaging::GetAll().size(), 1U);
  EXPECT_EQ(TaskMessaging::GetAll()[0]->descriptor, RuntimeManager::RuntimeDispatcher::kSocket);
  server_table_.SendMessage(server, "hi");
  EXPECT_THAT(TaskMessaging::GetAll()[0]->sent, ElementsAre(QJsonObject{{"data", "hi"}}));
}

// What was called of slots that may be too short to have user data: a letter for each call.
std::string& Called() {
  static std::string called;
  return called;
}

template <class Slots>
Slots MakeCountingSlots(std::size_t size) {
  Slots slots{};
  slots.size = size;
  slots.OnStarted = [](void* user_data, int, const char*, std::size_t) {
    Called() += user_data == nullptr ? 's' : 'S';
  };
  slots.OnMessage = [](void* user_data, const char*, std::size_t) {
    Called() += user_data == nullptr ? 'm' : 'M';
  };
  slots.Release = [](void* user_data) { Called() += user_data == nullptr ? 'r' : 'R'; };
  slots.user_data = &Called();
  return slots;
}

// What is called of slots, by the size that they state. In capitals: with the user data.
struct CalledAtSize {
  std::size_t size;
  const char* called;
};

TEST_F(FakePlatform, ClientsFieldsThatTheSizeCoversAreCalledAndNoOthers) {
  const std::vector<CalledAtSize> cases = {{0, ""},      {15, ""},    {16, "s"},    {24, "sd"},
                                           {31, "sd"},   {32, "smd"}, {40, "smdr"}, {47, "smdr"},
                                           {48, "SMDR"}, {80, "SMDR"}};
  for (const CalledAtSize& row : cases) {
    SCOPED_TRACE(row.size);
    Called().clear();
    Task::GetAll().clear();
    TaskMessaging::GetAll().clear();
    auto slots = MakeCountingSlots<TARVRpcClientSlots>(row.size);
    slots.OnDisconnect = [](void* user_data, int, const char*, std::size_t) {
      Called() += user_data == nullptr ? 'd' : 'D';
    };
    client_ = root_.CreateRpcClient(manager_);
    ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
    Task& task = *Task::GetAll().at(0);
    task.complete_start(Error());
    Q_EMIT TaskMessaging::GetAll().at(0)->messageReceived({{"data", "hello"}});
    table_.Release(client_);
    task.complete_stop(Error());
    EXPECT_EQ(Called(), row.called);
  }
}

TEST_F(FakePlatform, ServersFieldsThatTheSizeCoversAreCalledAndNoOthers) {
  const std::vector<CalledAtSize> cases = {{0, ""},     {15, ""},    {16, "s"},
                                           {24, "sm"},  {31, "sm"},  {32, "smr"},
                                           {39, "smr"}, {40, "SMR"}, {80, "SMR"}};
  for (const CalledAtSize& row : cases) {
    SCOPED_TRACE(row.size);
    Called().clear();
    TaskMessaging::GetAll().clear();
    auto slots = MakeCountingSlots<TARVRpcServerSlots>(row.size);
    server_table_.Run(root_.GetRpcServer(manager_), &slots);
    Q_EMIT TaskMessaging::GetAll().at(0)->messageReceived({{"data", "hello"}});
    root_.Release(manager_);
    EXPECT_EQ(Called(), row.called);
  }
}

TEST_F(FakePlatform, ServerDropsObjectsWithoutATextButNotAnEmptyText) {
  TARVRpcServerSlots callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.OnMessage = [](void* log, const char* text, std::size_t) {
    Log(log, std::string("message '") + text + "'");
  };
  callbacks.user_data = &log_;
  server_table_.Run(root_.GetRpcServer(manager_), &callbacks);
  TaskMessaging& channel = *TaskMessaging::GetAll().at(0);
  for (const QJsonObject& object :
       {QJsonObject{{"data", 5}}, QJsonObject{}, QJsonObject{{"data", ""}}}) {
    Q_EMIT channel.messageReceived(object);
  }
  EXPECT_THAT(log_, ElementsAre("message ''"));
}

}  // namespace
}  // namespace tarv::test

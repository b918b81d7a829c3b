// The server's entries inside a real task process, seen from its starter.

#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>

#include <QJsonObject>

#include "kit/service.h"

namespace tarv::test {
namespace {

using testing::HasSubstr;

class RpcServer : public ServiceTest {
 protected:
  // What the task "server_probe" found out about the entries.
  std::string Report() {
    Client& client = NewRunningClient("server_probe");
    EXPECT_TRUE(client.WaitForMessages(2));
    return client.Messages().at(1);
  }
};

TEST_F(RpcServer, RefusesToSendBeforeRunAndSendsAfterIt) {
  const std::string report = Report();
  EXPECT_THAT(report, HasSubstr("send_before_run=3\n"));
  EXPECT_THAT(report, HasSubstr("send_after_run=0\n"));
}

TEST_F(RpcServer, RunReportsItselfOnceBeforeItReturns) {
  EXPECT_THAT(Report(), HasSubstr("started=1 code=0 text='' chunk=0\n"));
}

TEST_F(RpcServer, RunOfAnUnknownHandleDoesNothing) {
  EXPECT_THAT(Report(), HasSubstr("started_by_run_of_null=0\n"));
}

TEST_F(RpcServer, SecondRunNeitherUsesNorReleasesItsSlots) {
  EXPECT_THAT(Report(), HasSubstr("second_run_started=0 released=0 first_started=1\n"));
}

TEST_F(RpcServer, UnlockingChunkZeroDoesNothing) {
  EXPECT_THAT(Report(), HasSubstr("unlock_zero_says=''\n"));
}

TEST_F(RpcServer, SendToAnUnknownHandleIsRefused) {
  EXPECT_THAT(Report(), HasSubstr("send_to_null=3\n"));
}

TEST_F(RpcServer, NullMessageRaisesTheLogicError) {
  EXPECT_THAT(Report(), HasSubstr("null_message_throws=1\n"));
}

TEST_F(RpcServer, WhatItSendsBeforeItsStarterListensArrivesInOrder) {
  Client& client = NewRunningClient("server_probe");
  ASSERT_TRUE(client.WaitForMessages(2));
  EXPECT_EQ(client.Messages().at(0), "late");
}

TEST_F(RpcServer, NewServerAfterTheManagersReleaseRunsOnTheSameSocket) {
  RuntimeManager::Task task("server_probe");
  task.withIpcSocket(true);
  bool started = false;
  task.start([&started](const RuntimeManager::Error& error) { started = !error.isError(); });
  ASSERT_TRUE(WaitUntil([&started] { return started; }));

  bool ended = false;
  RuntimeManager::TaskMessaging first(task.socketPath());
  QObject::connect(&first, &RuntimeManager::TaskMessaging::disconnected,
                   [&ended] { ended = true; });
  first.sendMessage({{"data", "restart"}});
  ASSERT_TRUE(WaitUntil([&ended] { return ended; }));

  std::string text;
  RuntimeManager::TaskMessaging second(task.socketPath());
  QObject::connect(
      &second, &RuntimeManager::TaskMessaging::messageReceived,
      [&text](const QJsonObject& object) { text = object["data"].toString().toStdString(); });
  ASSERT_TRUE(WaitUntil([&text] { return !text.empty(); }));
  EXPECT_EQ(text, "again");

  bool stopped = false;
  task.stop({}, [&stopped](const RuntimeManager::Error&) { stopped = true; });
  EXPECT_TRUE(WaitUntil([&stopped] { return stopped; }));
}

TEST_F(RpcServer, InAProcessThatIsNoTaskRunsWithoutAPeer) {
  _TARVRpcServerRef* const server = tables_.root.GetRpcServer(manager_);
  EXPECT_EQ(tables_.server.SendMessage(server, "early"), QUARN_RESULT_REFUSED);
  tables_.server.Run(server, nullptr);
  EXPECT_EQ(tables_.server.SendMessage(server, "nobody hears this"), QUARN_RESULT_SUCCESS);
  RunEvents(std::chrono::milliseconds(20));
}

}  // namespace
}  // namespace tarv::test

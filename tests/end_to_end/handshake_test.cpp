// How an application's plug-in and a task's plug-in find each other, whoever comes first.

#include <gmock/gmock.h>

#include <filesystem>
#include <string>
#include <tuple>

#include "application.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

constexpr std::chrono::milliseconds kAWhile(50);

enum class ClientRuns { kBeforeTheTaskStarts, kAfterTheTaskHasStarted };
enum class ServerRuns { kEarly, kLate };

using Order = std::tuple<ClientRuns, ServerRuns>;

class HandshakeOrder : public EndToEndTest, public testing::WithParamInterface<Order> {
 protected:
  HandshakeOrder() {
    if (ServerIsLate()) {
      Raise("closed");
    }
  }

  static bool ClientIsEarly() {
    return std::get<0>(GetParam()) == ClientRuns::kBeforeTheTaskStarts;
  }
  static bool ServerIsLate() { return std::get<1>(GetParam()) == ServerRuns::kLate; }
};

std::string NameOf(const testing::TestParamInfo<Order>& info) {
  const bool early = std::get<0>(info.param) == ClientRuns::kBeforeTheTaskStarts;
  const bool late = std::get<1>(info.param) == ServerRuns::kLate;
  return std::string("ClientRuns") + (early ? "Before" : "After") + "TheTaskStartsAndServer" +
         (late ? "Late" : "Early");
}

INSTANTIATE_TEST_SUITE_P(EveryOrder, HandshakeOrder,
                         testing::Combine(testing::Values(ClientRuns::kBeforeTheTaskStarts,
                                                          ClientRuns::kAfterTheTaskHasStarted),
                                          testing::Values(ServerRuns::kEarly, ServerRuns::kLate)),
                         NameOf);

TEST_P(HandshakeOrder, ConnectsOnceAndDeliversWhatWasSentMeanwhile) {
  const auto connection = Start();
  connection->Hear("early");
  connection->Send("echo", 1);
  if (ClientIsEarly()) {
    connection->client->Run();
  }
  ASSERT_TRUE(WaitForSign("up"));
  if (ClientIsEarly() && !ServerIsLate()) {
    EXPECT_TRUE(WaitUntil([&connection] { return connection->client->IsConnected(); }));
  } else {
    RunEvents(kAWhile);
    EXPECT_FALSE(connection->client->IsConnected());
  }
  connection->client->Run();
  connection->Send("echo", 2);
  if (ServerIsLate()) {
    RunEvents(kAWhile);
    EXPECT_THAT(connection->record->connected, SizeIs(0));
    EXPECT_THAT(connection->record->responses, SizeIs(0));
    std::filesystem::remove(Sign("closed"));
  }
  ASSERT_TRUE(connection->WaitForResponses(2));
  EXPECT_THAT(connection->record->connected, ElementsAre(std::nullopt));
  EXPECT_TRUE(connection->client->IsConnected());
  EXPECT_FALSE(connection->client->HasConnectionFailed());
  EXPECT_EQ(*connection->record->responses[0].GetResult(), cw::EncodableValue(1));
  EXPECT_EQ(*connection->record->responses[1].GetResult(), cw::EncodableValue(2));
  EXPECT_EQ(connection->record->notifications,
            std::vector({vorpc::Message::Notification{"early", "before anybody asked"}}));
}

class Handshake : public EndToEndTest {};

TEST_F(Handshake, WaitsForAClientThatHasNotRun) {
  const auto connection = Start();
  ASSERT_TRUE(WaitForSign("up"));
  RunEvents(kAWhile);
  EXPECT_FALSE(connection->client->IsConnected());
  EXPECT_FALSE(connection->client->HasConnectionFailed());
  EXPECT_THAT(connection->record->connected, SizeIs(0));
}

TEST_F(Handshake, IsToldToALateSubscriberAtOnce) {
  const auto connection = StartConnected();
  int calls = 0;
  connection->client->OnConnected([&calls](const OptionalError& error) {
    ++calls;
    EXPECT_FALSE(error);
  });
  EXPECT_EQ(calls, 1);
}

TEST_F(Handshake, HappensOnceHoweverOftenTheClientRuns) {
  const auto connection = StartConnected();
  connection->client->Run();
  connection->client->Run();
  EXPECT_EQ(connection->Ask("echo", "still here"), cw::EncodableValue("still here"));
  EXPECT_THAT(connection->record->connected, ElementsAre(std::nullopt));
}

TEST_F(Handshake, OfATaskThatDoesNotExistFailsWithTheReason) {
  const auto connection = Start("no-such-task");
  connection->Send("echo");
  EXPECT_FALSE(connection->Connect());
  ASSERT_THAT(connection->record->connected, SizeIs(1));
  const auto& error = connection->record->connected[0].value();
  EXPECT_EQ(error.code, vorpc::Message::kInternalError);
  EXPECT_THAT(error.message, testing::HasSubstr("'no-such-task'"));
  EXPECT_THAT(error.message, testing::HasSubstr(TaskFolder()));
  EXPECT_TRUE(connection->client->HasConnectionFailed());
  EXPECT_FALSE(connection->client->IsConnected());
  ASSERT_TRUE(connection->WaitForResponses(1));
  EXPECT_EQ(*connection->record->responses[0].GetError(), error);
  RunEvents(kAWhile);
  EXPECT_THAT(connection->record->connected, SizeIs(1));
  EXPECT_THAT(connection->record->disconnected, SizeIs(0));
}

TEST_F(Handshake, OfATaskThatDoesNotExistFailsAlsoWhenTheClientRunsLater) {
  const auto connection = Start("no-such-task");
  RunEvents(kAWhile);
  EXPECT_FALSE(connection->Connect());
  EXPECT_TRUE(connection->client->HasConnectionFailed());
  EXPECT_THAT(connection->record->connected[0]->message, testing::HasSubstr("'no-such-task'"));
}

TEST_F(Handshake, FailsWhenTheTaskEndsBeforeItServes) {
  Raise("closed");
  const auto connection = Start();
  connection->client->Run();
  ASSERT_TRUE(WaitForSign("up"));
  ASSERT_THAT(Children(), SizeIs(1));
  kill(Children()[0], SIGKILL);
  ASSERT_TRUE(connection->WaitForConnected());
  EXPECT_THAT(connection->record->connected[0]->message, testing::HasSubstr("'worker'"));
  EXPECT_TRUE(connection->client->HasConnectionFailed());
}

TEST_F(Handshake, NeverBeginsForATaskWithoutAName) {
  EXPECT_FALSE(manager_wrapper_->CreateIpcClient(""));
}

}  // namespace
}  // namespace tarv::test

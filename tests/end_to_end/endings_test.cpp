// How a conversation ends: the task goes, is taken away, or is let go.

#include <RuntimeManager/Error.h>
#include <gmock/gmock.h>
#include <signal.h>

#include "application.h"

namespace tarv::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using vorpc::Message;

constexpr std::chrono::milliseconds kAWhile(50);

class Ending : public EndToEndTest {
 protected:
  static pid_t ProcessOf(Connection& connection) {
    return static_cast<pid_t>(connection.Ask("process").AsInt64().value());
  }
};

TEST_F(Ending, OfAKilledTaskFailsAHundredPendingRequestsOnceEach) {
  constexpr std::size_t kPending = 100;
  const auto connection = StartConnected();
  for (std::size_t i = 0; i < kPending; ++i) {
    connection->Send("hold");
  }
  ASSERT_EQ(connection->Ask("count held"), cw::EncodableValue(std::int64_t{kPending}));
  kill(ProcessOf(*connection), SIGKILL);
  ASSERT_TRUE(connection->WaitForDisconnected());
  RunEvents(kAWhile);
  ASSERT_THAT(connection->record->disconnected, SizeIs(1));
  const Message::Error error = connection->record->disconnected[0].value();
  EXPECT_EQ(error.code, RuntimeManager::Error::kTaskKilled);
  EXPECT_THAT(error.message, AllOf(HasSubstr("the task 'worker'"),
                                   HasSubstr("was killed by signal 9 (SIGKILL) after ")));
  ASSERT_THAT(connection->record->responses, SizeIs(kPending));
  for (const Response& response : connection->record->responses) {
    ASSERT_TRUE(response.IsError());
    EXPECT_EQ(*response.GetError(), error);
  }
  EXPECT_FALSE(connection->client->IsConnected());
  EXPECT_TRUE(connection->client->HasConnectionFailed());
}

TEST_F(Ending, OfATaskByItselfTellsItsStatusAndItsLastWords) {
  const auto connection = StartConnected();
  connection->Send("hold");
  connection->client->SendNotify("exit", 3);
  ASSERT_TRUE(connection->WaitForDisconnected());
  const Message::Error error = connection->record->disconnected[0].value();
  EXPECT_THAT(error.message,
              AllOf(HasSubstr("exited with status 3"), HasSubstr("leaving as told")));
  ASSERT_THAT(connection->record->responses, SizeIs(1));
  EXPECT_EQ(*connection->record->responses[0].GetError(), error);
}

TEST_F(Ending, DeliversFirstWhatTheTaskSentBeforeIt) {
  constexpr int kCount = 50;  // what a socket holds while nobody reads it
  const auto connection = StartConnected();
  connection->Hear("number");
  connection->client->SendNotify("count", kCount);
  connection->client->SendNotify("exit", 0);
  std::size_t heard_before = 0;
  connection->client->OnDisconnected(
      [&heard_before, record = connection->record](const OptionalError& /*error*/) {
        heard_before = record->notifications.size();
      });
  ASSERT_TRUE(connection->WaitForDisconnected());
  EXPECT_EQ(heard_before, std::size_t{kCount});
}

TEST_F(Ending, LeavesTheOtherTasksAlone) {
  const auto first = StartConnected();
  const auto second = StartConnected();
  kill(ProcessOf(*first), SIGKILL);
  ASSERT_TRUE(first->WaitForDisconnected());
  EXPECT_EQ(second->Ask("echo", 1), cw::EncodableValue(1));
  EXPECT_THAT(second->record->disconnected, IsEmpty());
}

TEST_F(Ending, ByLettingTheClientGoStopsItsTaskAndCallsNothing) {
  auto connection = StartConnected();
  connection->Send("hold");
  const auto record = connection->record;
  ASSERT_THAT(Children(), SizeIs(1));
  connection.reset();
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); }));
  EXPECT_THAT(SocketsBelow(folder_.GetPath()), IsEmpty());
  EXPECT_THAT(record->responses, IsEmpty());
  EXPECT_THAT(record->disconnected, IsEmpty());
}

TEST_F(Ending, IsFollowedByANewBeginning) {
  auto connection = StartConnected();
  kill(ProcessOf(*connection), SIGKILL);
  ASSERT_TRUE(connection->WaitForDisconnected());
  connection = StartConnected();
  EXPECT_EQ(connection->Ask("echo", 1), cw::EncodableValue(1));
}

}  // namespace
}  // namespace tarv::test

// Tasks that live on when their channel is lost, and what becomes of their clients.

#include <RuntimeManager/Error.h>
#include <gmock/gmock.h>

#include "kit/service.h"

namespace tarv::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class ChannelLoss : public ServiceTest {
 protected:
  // The client is told once, with the platform's code and a reason; its task is stopped, and its
  // slots are released.
  static void ExpectTheEnd(Client& client, int code, const std::string& reason) {
    ASSERT_TRUE(client.WaitFor(Event::kReleased));
    EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
    EXPECT_EQ(client.Last(Event::kDisconnect).code, code);
    EXPECT_NE(client.Last(Event::kDisconnect).chunk, 0U);
    EXPECT_THAT(client.Last(Event::kDisconnect).text, HasSubstr(reason));
    EXPECT_EQ(client.events.back().kind, Event::kReleased);
    EXPECT_THAT(Children(), IsEmpty());
    EXPECT_EQ(client.Send("too late"), QUARN_RESULT_REFUSED);
  }
};

TEST_F(ChannelLoss, ByATaskThatHangsUpDisconnectsAndStopsTheTask) {
  Client& client = NewRunningClient("lines.py");
  client.Send("hang up");
  ExpectTheEnd(client, RuntimeManager::Error::kConnectionLost, "closed the connection");
}

TEST_F(ChannelLoss, ByAMessageFromTheTaskOverTheBoundDisconnectsAndStopsTheTask) {
  const ScopedVariable bound("RUNTIME_MANAGER_MAX_MESSAGE", "1000");
  Client& client = NewRunningClient("lines.py");
  client.Send("repeat 500");
  ASSERT_TRUE(client.WaitForMessages(1));
  client.Send("repeat 2000");
  ExpectTheEnd(client, RuntimeManager::Error::kMessageTooLong, "RUNTIME_MANAGER_MAX_MESSAGE");
  EXPECT_EQ(client.Count(Event::kMessage), 1U);
}

TEST_F(ChannelLoss, ByAMessageToTheTaskOverTheBoundDisconnectsAndStopsTheTask) {
  const ScopedVariable bound("RUNTIME_MANAGER_MAX_MESSAGE", "1000");
  Client& client = NewRunningClient("lines.py");
  EXPECT_EQ(client.Send(std::string(2000, 'x')), QUARN_RESULT_SUCCESS);
  ExpectTheEnd(client, RuntimeManager::Error::kMessageTooLong, "RUNTIME_MANAGER_MAX_MESSAGE");
}

TEST_F(ChannelLoss, ByAFullQueueDisconnectsAndStopsTheTask) {
  const ScopedVariable bound("RUNTIME_MANAGER_MAX_QUEUE", "100000");
  Client& client = NewRunningClient("idle");
  for (int i = 0; i < 40; ++i) {
    client.Send(std::string(50'000, 'x'));
  }
  ExpectTheEnd(client, RuntimeManager::Error::kQueueFull, "RUNTIME_MANAGER_MAX_QUEUE");
}

TEST_F(ChannelLoss, LeavesAClientThatCannotBeStartedAgain) {
  Client& client = NewRunningClient("echo");
  std::vector<QuarnResult> results;
  client.on_event = [&](const Event& event) {
    if (event.kind == Event::kDisconnect) {
      results.push_back(client.Start("echo"));
      results.push_back(client.Start(""));
    }
  };
  client.Send("!exit 0");
  ASSERT_TRUE(client.WaitFor(Event::kReleased));
  EXPECT_EQ(results,
            (std::vector<QuarnResult>{QUARN_RESULT_REFUSED, QUARN_RESULT_INVALID_ARGUMENT}));
}

}  // namespace
}  // namespace tarv::test

// Much of everything at once: nothing is lost, everybody else is served, and the memory comes back.

#include "load.h"

#include <RuntimeManager/Error.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <random>
#include <set>
#include <utility>

#include "end_to_end/application.h"
#include "support/seed.h"

namespace tarv::test {
namespace {

using testing::Each;
using testing::HasSubstr;
using testing::SizeIs;

constexpr std::chrono::minutes kLongPatience(20);

class Load : public EndToEndTest {};

TEST_F(Load, OfNotificationsToASlowConsumerArrivesAndOthersAreServed) {
  const auto notifications = static_cast<int>(Sized(1'000'000, 20'000));
  const auto slow = StartConnected("loaded");
  const auto other = StartConnected("loaded");
  const PeakGrowth growth;
  for (int i = 1; i <= notifications; ++i) {
    slow->client->SendNotify("slowly", i);
    if (i % (notifications / 20) == 0) {
      EXPECT_EQ(other->Ask("echo", i), cw::EncodableValue(i));
    }
  }
  slow->Send("count");
  ASSERT_TRUE(WaitUntil([&slow] { return !slow->record->responses.empty(); }, kLongPatience));
  EXPECT_EQ(*slow->record->responses[0].GetResult(),
            cw::EncodableValue(std::int64_t{notifications}));
  EXPECT_EQ(other->Ask("echo", 1), cw::EncodableValue(1));
  // What waits is the text of each, and no more.
  constexpr std::size_t kMostOfANotification = 200;
  EXPECT_LE(growth.Get("notifications to a slow consumer"),
            static_cast<std::size_t>(notifications) * kMostOfANotification + kMiB);
}

class LoadForADeafPeer : public Load {
 protected:
  // Sends to one until its connection fails, while another answers. How much, unless there is no end.
  static std::optional<std::size_t> SendUntilItFails(Connection& deaf, Connection& other) {
    const std::string text(1000, 'n');
    constexpr std::size_t kMost = 100'000;
    for (std::size_t sent = 1; sent <= kMost; ++sent) {
      deaf.client->SendNotify("slowly", text);
      if (sent % 2000 == 0) {
        EXPECT_EQ(other.Ask("echo", 1), cw::EncodableValue(1));
      }
      if (deaf.client->HasConnectionFailed()) {
        return sent * text.size();
      }
    }
    return std::nullopt;
  }
};

TEST_F(LoadForADeafPeer, EndsAtTheBoundOfItsQueue) {
  constexpr std::size_t kQueue = 8 * kMiB;
  const ScopedVariable queue("RUNTIME_MANAGER_MAX_QUEUE", std::to_string(kQueue));
  const auto deaf = StartConnected("loaded");
  const auto other = StartConnected("loaded");
  const PeakGrowth growth;
  deaf->client->SendNotify("sleep", {});
  deaf->Send("echo");
  const auto sent = SendUntilItFails(*deaf, *other);
  ASSERT_TRUE(sent.has_value()) << "the queue has no bound";
  EXPECT_GT(*sent, kQueue / 2) << "the bound is lower";
  ASSERT_TRUE(deaf->WaitForDisconnected());
  const vorpc::Message::Error error = deaf->record->disconnected[0].value();
  EXPECT_EQ(error.code, RuntimeManager::Error::kQueueFull);
  EXPECT_THAT(error.message, HasSubstr("8388608 bytes that RUNTIME_MANAGER_MAX_QUEUE sets"));
  ASSERT_THAT(deaf->record->responses, SizeIs(1));
  EXPECT_EQ(*deaf->record->responses[0].GetError(), error);
  EXPECT_EQ(other->Ask("echo", 1), cw::EncodableValue(1));
  EXPECT_LE(growth.Get("a queue of 8 MiB"), 2 * kQueue + 8 * kMiB);
}

TEST_F(Load, OfTwoHundredTasksIsServedAndGoes) {
  const std::size_t tasks = Sized(200, 20);
  std::vector<std::unique_ptr<Connection>> connections;
  const std::size_t descriptors = CountDescriptors();
  for (std::size_t i = 0; i < tasks; ++i) {
    connections.push_back(Start("loaded"));
    connections.back()->client->Run();
    connections.back()->Send("echo", static_cast<int>(i));
  }
  for (std::size_t i = 0; i < tasks; ++i) {
    ASSERT_TRUE(
        WaitUntil([&] { return !connections[i]->record->responses.empty(); }, kLongPatience))
        << i;
    const Response& response = connections[i]->record->responses.front();
    ASSERT_FALSE(response.IsError()) << response.GetError()->message;
    EXPECT_EQ(*response.GetResult(), cw::EncodableValue(static_cast<int>(i)));
  }
  EXPECT_THAT(Children(), SizeIs(tasks));
  connections.clear();
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); }, kLongPatience));
  EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() <= descriptors; }, kLongPatience));
}

// Sends requests that the task keeps. What waits for a task that is slow to read would count as theirs,
// so it is let catch up now and then. `ends` counts their ends by the task's death.
void SendKeptRequests(Connection& connection, std::vector<int>& ends) {
  for (std::size_t i = 0; i < ends.size(); ++i) {
    connection.client->SendRequest(
        "hold", static_cast<int>(i), [&ends, i](const Response& response) {
          ends[i] +=
              response.IsError() && response.GetError()->code == RuntimeManager::Error::kTaskKilled
                  ? 1
                  : 1000;
        });
    if (i % 100 == 99) {
      ASSERT_EQ(connection.Ask("echo", 1), cw::EncodableValue(1));
    }
  }
}

TEST_F(Load, OfPendingRequestsLeavesRoomForOthersAndEachEndsOnce) {
  const auto pending = Sized(10'000, 2'000);
  const auto connection = StartConnected();
  const PeakGrowth growth;
  std::vector<int> ends(pending);
  ASSERT_NO_FATAL_FAILURE(SendKeptRequests(*connection, ends));
  EXPECT_EQ(connection->Ask("count held"), cw::EncodableValue(static_cast<std::int64_t>(pending)));
  EXPECT_EQ(connection->Ask("echo", 1), cw::EncodableValue(1));
  EXPECT_LE(growth.Get("pending requests"), pending * 512);
  kill(Children().front(), SIGKILL);
  ASSERT_TRUE(connection->WaitForDisconnected());
  RunEvents(std::chrono::milliseconds(20));
  EXPECT_THAT(ends, Each(1));
}

class LoadOfLockedChunks : public Load {
 protected:
  // Has so many texts sent back, and leaves their chunks locked. Their ids.
  static std::vector<std::size_t> Lock(Client& client, std::size_t chunks) {
    client.unlock = false;
    const std::string text(100, 'c');
    for (std::size_t sent = 0; sent < chunks; ++sent) {
      EXPECT_EQ(client.Send(text + std::to_string(sent)), QUARN_RESULT_SUCCESS);
    }
    EXPECT_TRUE(WaitUntil([&] { return client.events.size() == chunks; }, kLongPatience))
        << client.events.size();
    std::vector<std::size_t> ids;
    for (const Event& event : std::exchange(client.events, {})) {
      ids.push_back(event.chunk);
    }
    return ids;
  }

  void UnlockInAnyOrder(const Client& client, std::vector<std::size_t> ids) {
    std::shuffle(ids.begin(), ids.end(), random_);
    for (const std::size_t id : ids) {
      tables_.client.UnlockResources(client.handle, id);
    }
  }

  const std::uint64_t seed_ = TestSeed(NewSeed());
  std::mt19937_64 random_{seed_};
};

TEST_F(LoadOfLockedChunks, TakesNoMoreMemoryTheSecondTimeAndGivesItBack) {
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed_));
  const auto chunks = Sized(100'000, 5'000);
  Client& client = NewRunningClient("echo");
  client.events.clear();
  const std::size_t before = CountHeld();
  UnlockInAnyOrder(client, Lock(client, chunks));
  const std::size_t free_slots = CountHeld() - before;
  std::cout << "memory for a slot: " << free_slots / chunks << " bytes" << std::endl;
  UnlockInAnyOrder(client, Lock(client, chunks / 10));
  const std::size_t after_more = CountHeld() - before;
  client.Release();
  ASSERT_TRUE(client.WaitFor(Event::kReleased));
  RunEvents(std::chrono::milliseconds(20));
  if (kMemoryCounts) {
    constexpr std::size_t kMostOfASlot = 2048;
    EXPECT_LE(free_slots, chunks * kMostOfASlot);
    EXPECT_LE(after_more, free_slots + kMiB) << "slots are not used again";
    EXPECT_LE(CountHeld(), before + kMiB);
  }
}

TEST_F(LoadOfLockedChunks, LeavesRoomForOthers) {
  const auto chunks = Sized(100'000, 5'000);
  Client& other = NewRunningClient("echo");
  Client& client = NewRunningClient("echo");
  client.events.clear();
  const std::vector<std::size_t> ids = Lock(client, chunks);
  EXPECT_THAT(std::set<std::size_t>(ids.begin(), ids.end()), SizeIs(chunks));
  other.Send("served meanwhile");
  EXPECT_TRUE(other.WaitForMessages(1));
  UnlockInAnyOrder(client, ids);
}

}  // namespace
}  // namespace tarv::test

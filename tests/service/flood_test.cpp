// Many threads send to and from real tasks when these, or their clients, end.

#include "kit/flood.h"

#include <RuntimeManager/Error.h>
#include <gmock/gmock.h>
#include <signal.h>

#include "kit/service.h"

namespace tarv::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kAllRefused[] = "refused 8, gave up 0, otherwise 0";

class Flooding : public ServiceTest {
 protected:
  // A client to whose task eight threads send.
  Client& Flood(test::Flood& flood) {
    Client& client = NewRunningClient("echo");
    flood.Start([&client] { return client.Send("flood"); });
    flood.WaitUntilItFlows();
    return client;
  }

  // A client whose task's eight threads send.
  Client& BeFlooded() {
    Client& client = NewRunningClient("flood");
    client.Send("for ever");
    EXPECT_TRUE(client.WaitForMessages(1000));
    return client;
  }

  static void KillTheTask() {
    ASSERT_THAT(Children(), SizeIs(1));
    kill(Children().front(), SIGKILL);
  }

  // The client was told `disconnects` times, and its slots were released once, after everything
  // else.
  static void ExpectTheEnd(Client& client, int code) {
    ASSERT_TRUE(client.WaitFor(Event::kReleased));
    EXPECT_EQ(client.Count(Event::kDisconnect), 1U);
    EXPECT_EQ(client.Last(Event::kDisconnect).code, code);
    EXPECT_EQ(client.Count(Event::kReleased), 1U);
    EXPECT_EQ(client.events.back().kind, Event::kReleased);
    EXPECT_THAT(Children(), IsEmpty());
  }
};

TEST_F(Flooding, OfATaskIsRefusedOnceItsClientIsReleased) {
  test::Flood flood;
  Client& client = Flood(flood);
  client.Release();
  EXPECT_EQ(flood.Join(), kAllRefused);
  ExpectTheEnd(client, 0);
}

TEST_F(Flooding, OfATaskIsRefusedOnceTheManagerLetsItsClientGo) {
  test::Flood flood;
  Client& client = Flood(flood);
  tables_.root.Release(manager_);
  EXPECT_EQ(flood.Join(), kAllRefused);
  EXPECT_EQ(client.Count(Event::kReleased), 1U);
}

TEST_F(Flooding, OfATaskThatIsKilledIsRefusedAndItsClientHearsOfIt) {
  test::Flood flood;
  Client& client = Flood(flood);
  KillTheTask();
  ExpectTheEnd(client, RuntimeManager::Error::kTaskKilled);
  EXPECT_EQ(flood.Join(), kAllRefused);
}

TEST_F(Flooding, ByATaskEndsWhenItsClientIsReleased) {
  Client& client = BeFlooded();
  client.Release();
  ExpectTheEnd(client, 0);
}

TEST_F(Flooding, ByATaskThatIsKilledEndsWithTheWordThatItDied) {
  Client& client = BeFlooded();
  KillTheTask();
  ExpectTheEnd(client, RuntimeManager::Error::kTaskKilled);
}

TEST_F(Flooding, ByATaskIsRefusedOnceItsServerIsReleased) {
  Client& client = NewRunningClient("flood");
  client.Send("until released");
  ExpectTheEnd(client, RuntimeManager::Error::kTaskExited);
  EXPECT_THAT(client.Last(Event::kDisconnect).text, HasSubstr(kAllRefused));
}

}  // namespace
}  // namespace tarv::test

// The root table's entries: one manager, its clients, its server.

#include <gmock/gmock.h>

#include <set>
#include <thread>
#include <vector>

#include "kit/service.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;

class Manager : public ServiceTest {
 protected:
  static _TARVManagerRef* Stale() { return reinterpret_cast<_TARVManagerRef*>(0xFFFFFFFFFFFF); }
};

TEST_F(Manager, IsTheSameAtEveryInitializeAndAfterRelease) {
  ASSERT_NE(manager_, nullptr);
  EXPECT_EQ(tables_.root.Initialize(), manager_);
  tables_.root.Release(manager_);
  EXPECT_EQ(tables_.root.Initialize(), manager_);
}

TEST_F(Manager, HasOneServerUntilReleaseAndThenAnother) {
  _TARVRpcServerRef* const first = tables_.root.GetRpcServer(manager_);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(tables_.root.GetRpcServer(manager_), first);
  tables_.root.Release(manager_);
  _TARVRpcServerRef* const second = tables_.root.GetRpcServer(manager_);
  EXPECT_NE(second, nullptr);
  EXPECT_NE(second, first);
}

TEST_F(Manager, HasOneIntentManagerUntilReleaseAndThenAnother) {
  _TARVIntentManagerRef* const first = tables_.root.GetIntentManager(manager_);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(tables_.root.GetIntentManager(manager_), first);
  tables_.root.Release(manager_);
  _TARVIntentManagerRef* const second = tables_.root.GetIntentManager(manager_);
  EXPECT_NE(second, nullptr);
  EXPECT_NE(second, first);
}

TEST_F(Manager, MakesANewClientAtEachCall) {
  const std::set<_TARVRpcClientRef*> handles = {tables_.root.CreateRpcClient(manager_),
                                                tables_.root.CreateRpcClient(manager_),
                                                tables_.root.CreateRpcClient(manager_)};
  EXPECT_EQ(handles.size(), 3U);
  EXPECT_EQ(handles.count(nullptr), 0U);
}

TEST_F(Manager, KeepsTheOtherClientsInOrderWhenOneStops) {
  std::vector<int> released;
  std::vector<Client*> clients;
  for (int i = 0; i < 3; ++i) {
    Client& client = *clients.emplace_back(&NewRunningClient("echo"));
    client.on_event = [&released, i](const Event& event) {
      if (event.kind == Event::kReleased) {
        released.push_back(i);
      }
    };
  }
  clients[1]->Release();
  ASSERT_TRUE(clients[1]->WaitFor(Event::kReleased));
  EXPECT_THAT(released, ElementsAre(1));
  tables_.root.Release(manager_);
  EXPECT_THAT(released, ElementsAre(1, 0, 2));
}

TEST_F(Manager, ReleaseEndsHandlesOfClientsAndServer) {
  Client& client = NewRunningClient("echo");
  _TARVRpcServerRef* const server = tables_.root.GetRpcServer(manager_);
  tables_.server.Run(server, nullptr);
  ASSERT_EQ(tables_.server.SendMessage(server, "there"), QUARN_RESULT_SUCCESS);
  tables_.root.Release(manager_);
  EXPECT_EQ(client.Send("lost"), QUARN_RESULT_REFUSED);
  EXPECT_EQ(tables_.server.SendMessage(server, "lost"), QUARN_RESULT_REFUSED);
}

TEST_F(Manager, ReleaseOfARunningClientSendsNoDisconnect) {
  Client& client = NewRunningClient("echo");
  tables_.root.Release(manager_);
  EXPECT_EQ(client.Count(Event::kDisconnect), 0U);
  EXPECT_EQ(client.Count(Event::kReleased), 1U);
}

TEST_F(Manager, ReleaseMayComeFromAReleaseCallbackThatAlsoMakesAClient) {
  Client& first = NewRunningClient("echo");
  Client& second = NewRunningClient("echo");
  Client* made = nullptr;
  first.on_event = [this, &made](const Event&) {
    tables_.root.Release(manager_);
    made = &NewClient();
  };
  tables_.root.Release(manager_);
  EXPECT_EQ(second.Count(Event::kReleased), 1U);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(made->Start("echo"), QUARN_RESULT_SUCCESS);
  EXPECT_TRUE(made->WaitForStart());
}

TEST_F(Manager, ReleaseInsideACallbackEndsAllHandlesButThatOfTheObjectThatRunsIt) {
  Client& client = NewClient();
  _TARVRpcServerRef* const server = tables_.root.GetRpcServer(manager_);
  tables_.server.Run(server, nullptr);
  _TARVIntentManagerRef* const intents = tables_.root.GetIntentManager(manager_);
  TARVIntentManagerProcTable intent_table{};
  tables_.root.IntentManagerProcTableLoad(&intent_table, sizeof(intent_table));
  TARVOpenUriSlot slot{};
  slot.size = sizeof(slot);
  bool looked = false;
  client.on_event = [&](const Event& event) {
    if (event.kind == Event::kStarted) {
      EXPECT_EQ(tables_.server.SendMessage(server, "there"), QUARN_RESULT_SUCCESS);
      tables_.root.Release(manager_);
      EXPECT_EQ(client.Send("there"), QUARN_RESULT_SUCCESS);
      EXPECT_EQ(tables_.server.SendMessage(server, "gone"), QUARN_RESULT_REFUSED);
      StdoutOf(
          [&] { EXPECT_EQ(intent_table.OpenUri(intents, "a:1", &slot), QUARN_RESULT_REFUSED); });
      looked = true;
    }
  };
  client.Start("echo");
  EXPECT_TRUE(client.WaitFor(Event::kReleased));
  EXPECT_TRUE(looked);
  EXPECT_EQ(client.Send("gone"), QUARN_RESULT_REFUSED);
}

TEST_F(Manager, UnknownHandleGivesNoClientAndALine) {
  for (_TARVManagerRef* unknown : {static_cast<_TARVManagerRef*>(nullptr), Stale()}) {
    EXPECT_THAT(StdoutOf([&] { EXPECT_EQ(tables_.root.CreateRpcClient(unknown), nullptr); }),
                IsLogLine("error", "Runtime Manager is not initialized."));
  }
}

TEST_F(Manager, UnknownHandleGivesNoIntentManagerAndALine) {
  for (_TARVManagerRef* unknown : {static_cast<_TARVManagerRef*>(nullptr), Stale()}) {
    EXPECT_THAT(StdoutOf([&] { EXPECT_EQ(tables_.root.GetIntentManager(unknown), nullptr); }),
                IsLogLine("error", "Runtime Manager is not initialized."));
  }
}

TEST_F(Manager, UnknownHandleGivesNoServerWithoutAWord) {
  for (_TARVManagerRef* unknown : {static_cast<_TARVManagerRef*>(nullptr), Stale()}) {
    EXPECT_EQ(StdoutOf([&] { EXPECT_EQ(tables_.root.GetRpcServer(unknown), nullptr); }), "");
  }
}

TEST_F(Manager, ReleaseOfAnUnknownHandleDoesNothing) {
  Client& client = NewRunningClient("echo");
  EXPECT_EQ(StdoutOf([&] {
              tables_.root.Release(nullptr);
              tables_.root.Release(Stale());
            }),
            "");
  EXPECT_EQ(client.Send("still there"), QUARN_RESULT_SUCCESS);
  EXPECT_TRUE(client.WaitForMessages(1));
}

}  // namespace
}  // namespace tarv::test

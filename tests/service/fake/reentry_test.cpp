// Callbacks that come back to the manager while it releases what it has.

#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>

#include <functional>
#include <utility>

#include "fake_platform.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

class ManagersRelease : public FakePlatform {
 protected:
  // Runs the client with slots that call `action` when they are released.
  void StartClientThatOnRelease(const std::function<void()>& action) {
    on_release_ = action;
    TARVRpcClientSlots slots{};
    slots.size = sizeof(slots);
    slots.Release = &RunAction;
    slots.user_data = &on_release_;
    ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  }

  void RunServerThatOnRelease(const std::function<void()>& action) {
    on_release_ = action;
    TARVRpcServerSlots slots{};
    slots.size = sizeof(slots);
    slots.Release = &RunAction;
    slots.user_data = &on_release_;
    server_table_.Run(root_.GetRpcServer(manager_), &slots);
  }

  // Once: what the action makes is not to run it again.
  static void RunAction(void* user_data) {
    const auto action = std::exchange(*static_cast<std::function<void()>*>(user_data), nullptr);
    if (action) {
      action();
    }
  }

  bool IsAlive(_TARVRpcClientRef* client) const {
    // A client that is there and idle takes the start; one that is gone is an invalid argument.
    return table_.StartTask(client, "worker", "/libs", nullptr) != QUARN_RESULT_INVALID_ARGUMENT;
  }

  std::function<void()> on_release_;
};

TEST_F(ManagersRelease, EndsAClientThatAClientsCallbackMakes) {
  _TARVRpcClientRef* made = nullptr;
  StartClientThatOnRelease([&] { made = root_.CreateRpcClient(manager_); });
  root_.Release(manager_);
  ASSERT_NE(made, nullptr);
  EXPECT_FALSE(IsAlive(made));
}

TEST_F(ManagersRelease, EndsAClientThatTheServersCallbackMakes) {
  _TARVRpcClientRef* made = nullptr;
  RunServerThatOnRelease([&] { made = root_.CreateRpcClient(manager_); });
  root_.Release(manager_);
  ASSERT_NE(made, nullptr);
  EXPECT_FALSE(IsAlive(made));
}

TEST_F(ManagersRelease, LetsAClientsCallbackFindTheServerThatIsAboutToGo) {
  _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
  server_table_.Run(server, nullptr);
  _TARVRpcServerRef* found = nullptr;
  QuarnResult sent = QUARN_RESULT_REFUSED;
  StartClientThatOnRelease([&] {
    found = root_.GetRpcServer(manager_);
    sent = server_table_.SendMessage(found, "the last word");
  });
  root_.Release(manager_);
  EXPECT_EQ(found, server);
  EXPECT_EQ(sent, QUARN_RESULT_SUCCESS);
  EXPECT_EQ(server_table_.SendMessage(server, "late"), QUARN_RESULT_REFUSED);
}

TEST_F(ManagersRelease, EndsAServerThatACallbackMakes) {
  _TARVRpcServerRef* made = nullptr;
  StartClientThatOnRelease([&] {
    made = root_.GetRpcServer(manager_);
    server_table_.Run(made, nullptr);
    EXPECT_EQ(server_table_.SendMessage(made, "here"), QUARN_RESULT_SUCCESS);
  });
  root_.Release(manager_);
  EXPECT_EQ(server_table_.SendMessage(made, "late"), QUARN_RESULT_REFUSED);
}

TEST_F(ManagersRelease, EndsAServerThatTheDyingServersCallbackMakes) {
  _TARVRpcServerRef* made = nullptr;
  RunServerThatOnRelease([&] {
    made = root_.GetRpcServer(manager_);
    server_table_.Run(made, nullptr);
    EXPECT_EQ(server_table_.SendMessage(made, "here"), QUARN_RESULT_SUCCESS);
  });
  root_.Release(manager_);
  EXPECT_EQ(server_table_.SendMessage(made, "late"), QUARN_RESULT_REFUSED);
}

TEST_F(ManagersRelease, EndsIntentsThatACallbackAsksFor) {
  _TARVIntentManagerRef* const intents = root_.GetIntentManager(manager_);
  _TARVIntentManagerRef* found = nullptr;
  StartClientThatOnRelease([&] { found = root_.GetIntentManager(manager_); });
  root_.Release(manager_);
  EXPECT_EQ(found, intents);
  TARVIntentManagerProcTable intent_table{};
  root_.IntentManagerProcTableLoad(&intent_table, sizeof(intent_table));
  TARVOpenUriSlot slot{};
  slot.size = sizeof(slot);
  EXPECT_THAT(
      StdoutOf([&] { EXPECT_EQ(intent_table.OpenUri(found, "a:1", &slot), QUARN_RESULT_REFUSED); }),
      IsLogLine("error", "Intent Manager is not initialized."));
}

TEST_F(ManagersRelease, InsideACallbackEndsTheClientsThatAreStillToCome) {
  _TARVRpcClientRef* const second = root_.CreateRpcClient(manager_);
  bool second_is_alive = true;
  StartClientThatOnRelease([&] {
    root_.Release(manager_);
    second_is_alive = IsAlive(second);
  });
  root_.Release(manager_);
  EXPECT_FALSE(second_is_alive);
}

}  // namespace
}  // namespace tarv::test

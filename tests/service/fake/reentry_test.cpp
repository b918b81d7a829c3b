// Callbacks that come back to the manager while it releases what it has, each time that they run.

#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>

#include <functional>
#include <stdexcept>

#include "fake_platform.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class ManagersRelease : public FakePlatform {
 public:
  ~ManagersRelease() override {
    on_release_ = nullptr;
    root_.Release(manager_);
  }

  // Slots that call `on_release_` whenever one of them is released.
  TARVRpcClientSlots ClientSlots() {
    TARVRpcClientSlots slots{};
    slots.size = sizeof(slots);
    slots.Release = &RunAction;
    slots.user_data = this;
    return slots;
  }
  TARVRpcServerSlots ServerSlots() {
    TARVRpcServerSlots slots{};
    slots.size = sizeof(slots);
    slots.Release = &RunAction;
    slots.user_data = this;
    return slots;
  }
  TARVOpenUriSlot UriSlot() {
    TARVOpenUriSlot slot{};
    slot.size = sizeof(slot);
    slot.release = &RunAction;
    slot.user_data = this;
    return slot;
  }

  void StartClient(_TARVRpcClientRef* client) {
    TARVRpcClientSlots slots = ClientSlots();
    ASSERT_EQ(table_.StartTask(client, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  }
  _TARVRpcServerRef* RunServer() {
    TARVRpcServerSlots slots = ServerSlots();
    _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
    server_table_.Run(server, &slots);
    return server;
  }
  _TARVIntentManagerRef* AskForUri() {
    TARVOpenUriSlot slot = UriSlot();
    _TARVIntentManagerRef* const intents = root_.GetIntentManager(manager_);
    EXPECT_EQ(IntentTable().OpenUri(intents, "a:1", &slot), QUARN_RESULT_SUCCESS);
    return intents;
  }
  TARVIntentManagerProcTable IntentTable() const {
    TARVIntentManagerProcTable table{};
    root_.IntentManagerProcTableLoad(&table, sizeof(table));
    return table;
  }

  bool IsAlive(_TARVRpcClientRef* client) const {
    // A client that is there and idle takes the start; one that is gone is an invalid argument.
    return table_.StartTask(client, "worker", "/libs", nullptr) != QUARN_RESULT_INVALID_ARGUMENT;
  }
  bool IsAlive(_TARVRpcServerRef* server) const {
    return server_table_.SendMessage(server, "there?") == QUARN_RESULT_SUCCESS;
  }
  bool IsAlive(_TARVIntentManagerRef* intents) const {
    TARVOpenUriSlot slot{};
    slot.size = sizeof(slot);
    QuarnResult result = QUARN_RESULT_SUCCESS;
    StdoutOf([&] { result = IntentTable().OpenUri(intents, "a:2", &slot); });
    return result == QUARN_RESULT_SUCCESS;
  }

  std::function<void()> on_release_;
  int releases_ = 0;

 private:
  // A manager that never gets done with what callbacks make fails here instead of running for ever.
  static constexpr int kTooMany = 100;

  static void RunAction(void* user_data) {
    auto* const self = static_cast<ManagersRelease*>(user_data);
    ++self->releases_;
    if (self->on_release_ && self->releases_ < kTooMany) {
      self->on_release_();
    }
  }
};

TEST_F(ManagersRelease, LeavesTheClientsThatClientsCallbacksMake) {
  _TARVRpcClientRef* made = nullptr;
  on_release_ = [&] {
    made = root_.CreateRpcClient(manager_);
    StartClient(made);
  };
  StartClient(client_);
  StartClient(root_.CreateRpcClient(manager_));
  root_.Release(manager_);
  EXPECT_EQ(releases_, 2);
  EXPECT_TRUE(IsAlive(made));
}

TEST_F(ManagersRelease, LeavesAClientThatTheServersCallbackMakes) {
  _TARVRpcClientRef* made = nullptr;
  on_release_ = [&] { made = root_.CreateRpcClient(manager_); };
  RunServer();
  root_.Release(manager_);
  EXPECT_TRUE(IsAlive(made));
}

TEST_F(ManagersRelease, LetsAClientsCallbackFindTheServerThatIsAboutToGo) {
  _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
  server_table_.Run(server, nullptr);
  _TARVRpcServerRef* found = nullptr;
  bool alive = false;
  on_release_ = [&] {
    found = root_.GetRpcServer(manager_);
    alive = IsAlive(found);
  };
  StartClient(client_);
  root_.Release(manager_);
  EXPECT_EQ(found, server);
  EXPECT_TRUE(alive);
  EXPECT_FALSE(IsAlive(server));
}

TEST_F(ManagersRelease, EndsAServerThatAClientsCallbackMakes) {
  _TARVRpcServerRef* made = nullptr;
  on_release_ = [&] {
    made = root_.GetRpcServer(manager_);
    server_table_.Run(made, nullptr);
    EXPECT_TRUE(IsAlive(made));
  };
  StartClient(client_);
  root_.Release(manager_);
  EXPECT_FALSE(IsAlive(made));
}

TEST_F(ManagersRelease, LeavesTheServerThatTheDyingServersCallbackMakes) {
  _TARVRpcServerRef* made = nullptr;
  on_release_ = [&] { made = RunServer(); };
  _TARVRpcServerRef* const server = RunServer();
  root_.Release(manager_);
  EXPECT_EQ(releases_, 1);
  EXPECT_NE(made, server);
  EXPECT_TRUE(IsAlive(made));
  EXPECT_FALSE(IsAlive(server));
}

TEST_F(ManagersRelease, EndsIntentsThatAClientsCallbackAsksFor) {
  _TARVIntentManagerRef* const intents = root_.GetIntentManager(manager_);
  _TARVIntentManagerRef* found = nullptr;
  on_release_ = [&] { found = root_.GetIntentManager(manager_); };
  StartClient(client_);
  root_.Release(manager_);
  EXPECT_EQ(found, intents);
  EXPECT_FALSE(IsAlive(found));
}

TEST_F(ManagersRelease, LeavesTheIntentsThatAPendingRequestsReleaseAsksFor) {
  _TARVIntentManagerRef* made = nullptr;
  on_release_ = [&] { made = AskForUri(); };
  _TARVIntentManagerRef* const intents = AskForUri();
  root_.Release(manager_);
  EXPECT_EQ(releases_, 1);
  EXPECT_NE(made, intents);
  EXPECT_TRUE(IsAlive(made));
}

TEST_F(ManagersRelease, InsideACallbackEndsTheClientsThatAreStillToCome) {
  _TARVRpcClientRef* const second = root_.CreateRpcClient(manager_);
  bool second_is_alive = true;
  on_release_ = [&] {
    root_.Release(manager_);
    second_is_alive = IsAlive(second);
  };
  StartClient(client_);
  root_.Release(manager_);
  EXPECT_FALSE(second_is_alive);
}

TEST_F(ManagersRelease, InsideACallbackEndsTheServerAtOnce) {
  _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
  server_table_.Run(server, nullptr);
  bool server_is_alive = true;
  on_release_ = [&] {
    root_.Release(manager_);
    server_is_alive = IsAlive(server);
  };
  StartClient(client_);
  root_.Release(manager_);
  EXPECT_FALSE(server_is_alive);
}

TEST_F(ManagersRelease, GoesOnAfterReleaseCallbacksThatThrow) {
  on_release_ = [] { throw std::runtime_error("not now"); };
  StartClient(client_);
  StartClient(root_.CreateRpcClient(manager_));
  RunServer();
  _TARVIntentManagerRef* const intents = root_.GetIntentManager(manager_);
  const std::string output = StdoutOf([&] { root_.Release(manager_); });
  EXPECT_EQ(releases_, 3);
  EXPECT_FALSE(IsAlive(intents));
  EXPECT_THAT(output, StartsWith("[error] "));
  EXPECT_THAT(output, HasSubstr("not now"));
}

TEST_F(ManagersRelease, LogsWhatAReleaseCallbackThrowsThatIsNoStandardException) {
  on_release_ = [] { throw 7; };
  StartClient(client_);
  EXPECT_THAT(
      StdoutOf([&] { root_.Release(manager_); }),
      IsLogLine(
          "error",
          "A Release callback threw an exception, which it must not: it is no std::exception"));
}

// ---- What a running callback holds

TEST_F(ManagersRelease, LeavesTheHandleOfAClientWhoseCallbackRunsUntilThatReturns) {
  struct Seen {
    ManagersRelease* test;
    QuarnResult inside;
  } seen{this, QUARN_RESULT_INVALID_ARGUMENT};
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.OnMessage = [](void* user_data, const char*, std::size_t) {
    auto* const self = static_cast<Seen*>(user_data);
    self->test->root_.Release(self->test->manager_);
    self->inside = self->test->table_.SendMessage(self->test->client_, "still here");
  };
  slots.user_data = &seen;
  ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  RuntimeManager::Task::GetAll().at(0)->complete_start({});
  Q_EMIT Channel().messageReceived({{"data", "go"}});
  EXPECT_EQ(seen.inside, QUARN_RESULT_SUCCESS);
  EXPECT_EQ(table_.SendMessage(client_, "late"), QUARN_RESULT_REFUSED);
}

TEST_F(ManagersRelease, LeavesTheHandleOfAServerWhoseCallbackRunsUntilThatReturns) {
  struct Seen {
    ManagersRelease* test;
    _TARVRpcServerRef* server;
    QuarnResult inside;
  } seen{this, root_.GetRpcServer(manager_), QUARN_RESULT_INVALID_ARGUMENT};
  TARVRpcServerSlots slots{};
  slots.size = sizeof(slots);
  slots.OnMessage = [](void* user_data, const char*, std::size_t) {
    auto* const self = static_cast<Seen*>(user_data);
    self->test->root_.Release(self->test->manager_);
    self->inside = self->test->server_table_.SendMessage(self->server, "still here");
  };
  slots.user_data = &seen;
  server_table_.Run(seen.server, &slots);
  Q_EMIT Channel().messageReceived({{"data", "go"}});
  EXPECT_EQ(seen.inside, QUARN_RESULT_SUCCESS);
  EXPECT_EQ(server_table_.SendMessage(seen.server, "late"), QUARN_RESULT_REFUSED);
}

TEST_F(ManagersRelease, LeavesTheHandleOfAnIntentManagerWhoseCallbackRunsUntilThatReturns) {
  struct Seen {
    ManagersRelease* test;
    _TARVIntentManagerRef* intents;
    bool inside;
  } seen{this, root_.GetIntentManager(manager_), false};
  TARVOpenUriSlot slot{};
  slot.size = sizeof(slot);
  slot.callback = [](void* user_data, bool) {
    auto* const self = static_cast<Seen*>(user_data);
    self->test->root_.Release(self->test->manager_);
    self->inside = self->test->IsAlive(self->intents);
  };
  slot.user_data = &seen;
  ASSERT_EQ(IntentTable().OpenUri(seen.intents, "a:1", &slot), QUARN_RESULT_SUCCESS);
  Q_EMIT RuntimeManager::IntentsInvoker::GetLatest()->replyReceived({}, {});
  EXPECT_TRUE(seen.inside);
  EXPECT_FALSE(IsAlive(seen.intents));
}

}  // namespace
}  // namespace tarv::test

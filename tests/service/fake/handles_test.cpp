// Entries that are given a handle that is null, that no object has had, or that is another's.

#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>

#include "fake_platform.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Has one object of each kind, at work.
class ForeignHandle : public FakePlatform {
 protected:
  ForeignHandle() {
    root_.IntentManagerProcTableLoad(&intent_table_, sizeof(intent_table_));
    Start().complete_start({});
    TARVRpcServerSlots slots{};
    slots.size = sizeof(slots);
    slots.OnMessage = [](void* self, const char*, std::size_t chunk) {
      static_cast<ForeignHandle*>(self)->server_chunk_ = chunk;
    };
    slots.user_data = this;
    server_ = root_.GetRpcServer(manager_);
    server_table_.Run(server_, &slots);
    intents_ = root_.GetIntentManager(manager_);
    log_.clear();
    TakeJournal();
  }

  // Null, a number that was never a handle, and the handles of objects of the other kinds.
  template <class Ref>
  std::vector<Ref> WrongHandles() const {
    std::vector<Ref> handles = {nullptr, Foreign<Ref>()};
    Append<_TARVManagerRef*>(handles, manager_);
    Append<_TARVRpcClientRef*>(handles, client_);
    Append<_TARVRpcServerRef*>(handles, server_);
    Append<_TARVIntentManagerRef*>(handles, intents_);
    return handles;
  }

  // Nothing reached the platform, and every object still works.
  void ExpectAllUntouched() {
    EXPECT_THAT(TakeJournal(), IsEmpty());
    EXPECT_THAT(log_, IsEmpty());
    EXPECT_EQ(root_.GetRpcServer(manager_), server_);
    EXPECT_EQ(root_.GetIntentManager(manager_), intents_);
    for (const auto& channel : RuntimeManager::TaskMessaging::GetAll()) {
      EXPECT_THAT(channel->sent, IsEmpty());
    }
    EXPECT_EQ(table_.SendMessage(client_, "here"), QUARN_RESULT_SUCCESS);
    EXPECT_EQ(server_table_.SendMessage(server_, "here"), QUARN_RESULT_SUCCESS);
  }

  TARVIntentManagerProcTable intent_table_{};
  _TARVRpcServerRef* server_ = nullptr;
  _TARVIntentManagerRef* intents_ = nullptr;
  std::size_t server_chunk_ = 0;

 private:
  template <class Of, class Ref, class Handle>
  static void Append(std::vector<Ref>& handles, Handle handle) {
    if constexpr (!std::is_same_v<Of, Ref>) {
      handles.push_back(reinterpret_cast<Ref>(handle));
    }
  }
};

TEST_F(ForeignHandle, GivesNothingOfAManager) {
  for (auto* const wrong : WrongHandles<_TARVManagerRef*>()) {
    EXPECT_THAT(StdoutOf([&] { EXPECT_EQ(root_.GetIntentManager(wrong), nullptr); }),
                IsLogLine("error", "Runtime Manager is not initialized."));
    EXPECT_THAT(StdoutOf([&] { EXPECT_EQ(root_.CreateRpcClient(wrong), nullptr); }),
                IsLogLine("error", "Runtime Manager is not initialized."));
    EXPECT_EQ(StdoutOf([&] { EXPECT_EQ(root_.GetRpcServer(wrong), nullptr); }), "");
    EXPECT_EQ(StdoutOf([&] { root_.Release(wrong); }), "");
  }
  ExpectAllUntouched();
}

TEST_F(ForeignHandle, IsNoClient) {
  for (auto* const wrong : WrongHandles<_TARVRpcClientRef*>()) {
    TARVRpcClientSlots slots = MakeSlots();
    EXPECT_EQ(table_.StartTask(wrong, "worker", "/libs", &slots), QUARN_RESULT_INVALID_ARGUMENT);
    EXPECT_EQ(table_.SendMessage(wrong, "lost"), QUARN_RESULT_REFUSED);
    table_.Release(wrong);
  }
  ExpectAllUntouched();
}

TEST_F(ForeignHandle, IsNoServer) {
  for (auto* const wrong : WrongHandles<_TARVRpcServerRef*>()) {
    TARVRpcServerSlots slots{};
    slots.size = sizeof(slots);
    slots.OnStarted = [](void*, int, const char*, std::size_t) { ADD_FAILURE(); };
    slots.Release = [](void*) { ADD_FAILURE(); };
    server_table_.Run(wrong, &slots);
    EXPECT_EQ(server_table_.SendMessage(wrong, "lost"), QUARN_RESULT_REFUSED);
    EXPECT_EQ(server_table_.SendMessage(wrong, nullptr), QUARN_RESULT_REFUSED);
  }
  ExpectAllUntouched();
}

TEST_F(ForeignHandle, IsNoIntentManager) {
  for (auto* const wrong : WrongHandles<_TARVIntentManagerRef*>()) {
    TARVOpenUriSlot open{};
    open.size = sizeof(open);
    open.release = [](void*) { ADD_FAILURE(); };
    TARVRegisterIntentSlot intent{};
    intent.size = sizeof(intent);
    intent.release = [](void*) { ADD_FAILURE(); };
    EXPECT_THAT(StdoutOf([&] {
                  EXPECT_EQ(intent_table_.OpenUri(wrong, "a:1", &open), QUARN_RESULT_REFUSED);
                }),
                IsLogLine("error", "Intent Manager is not initialized."));
    EXPECT_THAT(StdoutOf([&] {
                  EXPECT_EQ(intent_table_.RegisterIntent(wrong, "a", &intent),
                            QUARN_RESULT_REFUSED);
                }),
                IsLogLine("error", "Intent Manager is not initialized."));
  }
  ExpectAllUntouched();
}

TEST_F(ForeignHandle, UnlocksNoChunk) {
  std::size_t client_chunk = 0;
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.OnMessage = [](void* chunk, const char*, std::size_t id) {
    *static_cast<std::size_t*>(chunk) = id;
  };
  slots.user_data = &client_chunk;
  _TARVRpcClientRef* const client = root_.CreateRpcClient(manager_);
  ASSERT_EQ(table_.StartTask(client, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  RuntimeManager::Task::GetAll().back()->complete_start({});
  Q_EMIT RuntimeManager::TaskMessaging::GetAll().back()->messageReceived({{"data", "a"}});
  Q_EMIT RuntimeManager::TaskMessaging::GetAll().at(1)->messageReceived({{"data", "b"}});
  EXPECT_EQ(StdoutOf([&] {
              for (auto* const wrong : WrongHandles<_TARVRpcClientRef*>()) {
                table_.UnlockResources(wrong, client_chunk);
                table_.UnlockResources(wrong, server_chunk_);
              }
              for (auto* const wrong : WrongHandles<_TARVRpcServerRef*>()) {
                server_table_.UnlockResources(wrong, client_chunk);
                server_table_.UnlockResources(wrong, server_chunk_);
              }
            }),
            "");
  // Both chunks are still there to be unlocked, by their own handles.
  EXPECT_EQ(StdoutOf([&] {
              table_.UnlockResources(client, client_chunk);
              server_table_.UnlockResources(server_, server_chunk_);
            }),
            "");
}

}  // namespace
}  // namespace tarv::test

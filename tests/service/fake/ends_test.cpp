// In which order things end.

#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>
#include <tarv/tarv_capi.h>
#include <unistd.h>

#include <QCoreApplication>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fake_platform.h"
#include "support/capture.h"

namespace tarv::test {
namespace {

using RuntimeManager::Error;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;
using testing::ElementsAre;

// ---- Of one object

// Whether the service still has a channel: it lets all listeners go, this one too, when it does
// not.
class Ear {
 public:
  explicit Ear(TaskMessaging& channel) : channel_(channel) {
    QObject::connect(&channel, &TaskMessaging::messageReceived, [this] { heard_ = true; });
  }
  bool Hears() {
    heard_ = false;
    Q_EMIT channel_.messageReceived({});
    return heard_;
  }

 private:
  TaskMessaging& channel_;
  bool heard_ = false;
};

class End : public FakePlatform {
 public:
  // Writes what there is at `moment` into the log.
  void Look(const std::string& moment) {
    log_.push_back(moment + (ear_->Hears() ? ", channel open" : ", channel closed"));
    if (client_text_ != nullptr) {
      log_.push_back(client_text_);
    }
  }

  std::unique_ptr<Ear> ear_;
  const char* client_text_ = nullptr;  // of a chunk that is not unlocked
};

TEST_F(End, OfAReleasedClientIsToldThenItsChannelClosesAndThenItsTaskIsStopped) {
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.OnDisconnect = [](void* self, int, const char*, std::size_t) {
    EXPECT_FALSE(Task::GetAll().at(0)->complete_stop);
    static_cast<End*>(self)->Look("disconnect");
  };
  slots.user_data = this;
  ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  Task& task = *Task::GetAll().at(0);
  task.complete_start(Error());
  ear_ = std::make_unique<Ear>(Channel());
  task.on_stop = [this] { Look("stop"); };
  table_.Release(client_);
  EXPECT_THAT(log_, ElementsAre("disconnect, channel open", "stop, channel closed"));
}

TEST_F(End, OfADestroyedClientReleasesTheSlotsThenClosesTheChannelThenLetsTheTaskGo) {
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.OnDisconnect = [](void*, int, const char*, std::size_t) { ADD_FAILURE(); };
  slots.OnMessage = [](void* self, const char* text, std::size_t) {
    static_cast<End*>(self)->client_text_ = text;
  };
  slots.Release = [](void* self) { static_cast<End*>(self)->Look("released"); };
  slots.user_data = this;
  ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  Task::GetAll().at(0)->complete_start(Error());
  Q_EMIT Channel().messageReceived({{"data", "the text of a chunk"}});
  ear_ = std::make_unique<Ear>(Channel());
  TakeJournal();
  root_.Release(manager_);
  EXPECT_FALSE(ear_->Hears());
  RunDeferredDeletes();
  EXPECT_THAT(log_, ElementsAre("released, channel open", "the text of a chunk"));
  EXPECT_THAT(TakeJournal(), ElementsAre("~TaskMessaging", "~Task worker"));
}

TEST_F(End, OfAServerClosesTheChannelThenReleasesTheSlotsAndThenFreesTheChunks) {
  TARVRpcServerSlots slots{};
  slots.size = sizeof(slots);
  slots.OnMessage = [](void* self, const char* text, std::size_t) {
    static_cast<End*>(self)->client_text_ = text;
  };
  slots.Release = [](void* self) { static_cast<End*>(self)->Look("released"); };
  slots.user_data = this;
  server_table_.Run(root_.GetRpcServer(manager_), &slots);
  Q_EMIT Channel().messageReceived({{"data", "the text of a chunk"}});
  ear_ = std::make_unique<Ear>(Channel());
  const auto channel = TaskMessaging::GetAll().at(0);
  root_.Release(manager_);
  EXPECT_THAT(log_, ElementsAre("released, channel closed", "the text of a chunk"));
  EXPECT_FALSE(channel.isNull()) << "it may be in the middle of a signal";
  RunDeferredDeletes();
  EXPECT_TRUE(channel.isNull());
}

TEST_F(End, OfAnIntentManagerDestroysTheInvokerThenReleasesWhatWaits) {
  TARVIntentManagerProcTable intent_table{};
  root_.IntentManagerProcTableLoad(&intent_table, sizeof(intent_table));
  TARVOpenUriSlot slot{};
  slot.size = sizeof(slot);
  slot.callback = [](void*, bool) { ADD_FAILURE(); };
  slot.release = [](void*) { RuntimeManager::Journal::Get().Write("released"); };
  _TARVIntentManagerRef* const intents = root_.GetIntentManager(manager_);
  intent_table.OpenUri(intents, "a:1", &slot);
  intent_table.OpenUri(intents, "a:2", &slot);
  TakeJournal();
  root_.Release(manager_);
  EXPECT_THAT(TakeJournal(), ElementsAre("~IntentsInvoker", "released", "released"));
}

// ---- What can still be sent from the last callbacks

TEST_F(End, OfAReleasedClientLetsNothingBeSentFromItsLastCallbacks) {
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.OnDisconnect = [](void* self, int, const char*, std::size_t) {
    auto* const end = static_cast<End*>(self);
    EXPECT_EQ(end->table_.SendMessage(end->client_, "late"), QUARN_RESULT_REFUSED);
  };
  slots.Release = [](void* self) {
    auto* const end = static_cast<End*>(self);
    EXPECT_EQ(end->table_.SendMessage(end->client_, "late"), QUARN_RESULT_REFUSED);
    Log(&end->log_, "looked");
  };
  slots.user_data = this;
  ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  Task& task = *Task::GetAll().at(0);
  task.complete_start(Error());
  table_.Release(client_);
  task.complete_stop(Error());
  EXPECT_THAT(log_, ElementsAre("looked"));
}

TEST_F(End, OfTheManagersObjectsLetsNothingBeSentFromTheirRelease) {
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.Release = [](void* self) {
    auto* const end = static_cast<End*>(self);
    EXPECT_EQ(end->table_.SendMessage(end->client_, "late"), QUARN_RESULT_REFUSED);
    Log(&end->log_, "looked");
  };
  slots.user_data = this;
  ASSERT_EQ(table_.StartTask(client_, "worker", "/libs", &slots), QUARN_RESULT_SUCCESS);
  Task::GetAll().at(0)->complete_start(Error());
  static _TARVRpcServerRef* server = nullptr;
  server = root_.GetRpcServer(manager_);
  TARVRpcServerSlots server_slots{};
  server_slots.size = sizeof(server_slots);
  server_slots.Release = [](void* self) {
    auto* const end = static_cast<End*>(self);
    EXPECT_EQ(end->server_table_.SendMessage(server, "late"), QUARN_RESULT_REFUSED);
    Log(&end->log_, "looked");
  };
  server_slots.user_data = this;
  server_table_.Run(server, &server_slots);
  root_.Release(manager_);
  EXPECT_THAT(log_, ElementsAre("looked", "looked"));
}

// ---- Of all that a manager has

// Writes to standard error, which is there to the very end of a process.
void Tell(const char* line) { static_cast<void>(!write(STDERR_FILENO, line, std::strlen(line))); }

// Makes a client, a server and an intent manager in an order of its own, whose slots tell when they
// are released.
void MakeOneOfEach(const TARVProcTable& root) {
  _TARVManagerRef* const manager = root.Initialize();
  TARVIntentManagerProcTable intent_table{};
  root.IntentManagerProcTableLoad(&intent_table, sizeof(intent_table));
  TARVOpenUriSlot uri_slot{};
  uri_slot.size = sizeof(uri_slot);
  uri_slot.release = [](void*) { Tell("intents "); };
  intent_table.OpenUri(root.GetIntentManager(manager), "a:1", &uri_slot);

  TARVRpcServerProcTable server_table{};
  root.RpcServerProcTableLoad(&server_table, sizeof(server_table));
  TARVRpcServerSlots server_slots{};
  server_slots.size = sizeof(server_slots);
  server_slots.Release = [](void*) { Tell("server "); };
  server_table.Run(root.GetRpcServer(manager), &server_slots);

  TARVRpcClientProcTable client_table{};
  root.RpcClientProcTableLoad(&client_table, sizeof(client_table));
  TARVRpcClientSlots client_slots{};
  client_slots.size = sizeof(client_slots);
  client_slots.Release = [](void*) { Tell("client "); };
  for (int i = 0; i < 2; ++i) {
    client_table.StartTask(root.CreateRpcClient(manager), "worker", "/libs", &client_slots);
  }
}

TARVProcTable LoadRootTable() {
  TARVProcTable root{};
  TARVProcTableLoad(&root, sizeof(root));
  return root;
}

// Each in a process of its own, where no manager has been made yet.
class ManagersEndDeathTest : public testing::Test {
 protected:
  ManagersEndDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(ManagersEndDeathTest, ByReleaseEndsClientsThenTheServerThenTheIntents) {
  const auto release = [] {
    const QCoreApplication application(argument_count, arguments);
    const TARVProcTable root = LoadRootTable();
    MakeOneOfEach(root);
    root.Release(root.Initialize());
    Tell("released");
    std::_Exit(0);
  };
  EXPECT_EXIT(release(), testing::ExitedWithCode(0), "^client client server intents released$");
}

TEST_F(ManagersEndDeathTest, WithTheProcessEndsTheServerThenClientsThenTheIntents) {
  const auto leave = [] {
    static const QCoreApplication kApplication(argument_count, arguments);
    MakeOneOfEach(LoadRootTable());
    std::exit(0);
  };
  EXPECT_EXIT(leave(), testing::ExitedWithCode(0), "^server client client intents $");
}

// Asks for the manager once more, when it and all that it had is gone.
class LateAsker {
 public:
  LateAsker() = default;
  ~LateAsker() {
    const bool same = root_.Initialize() == manager_;
    root_.Release(manager_);
    const bool nothing = root_.GetRpcServer(manager_) == nullptr &&
                         root_.CreateRpcClient(manager_) == nullptr &&
                         root_.GetIntentManager(manager_) == nullptr;
    Tell(same ? "same handle" : "another handle");
    Tell(nothing ? ", of nothing" : ", of something");
  }
  LateAsker(const LateAsker&) = delete;
  LateAsker& operator=(const LateAsker&) = delete;

  void Ask() { manager_ = root_.Initialize(); }

 private:
  TARVProcTable root_ = LoadRootTable();
  _TARVManagerRef* manager_ = nullptr;
};

TEST_F(ManagersEndDeathTest, LeavesAnInitializeAtTheVeryEndOfTheProcessSafe) {
  const auto leave = [] {
    static LateAsker asker;  // made before the manager, and so destroyed after it
    asker.Ask();
    std::exit(0);
  };
  EXPECT_EXIT(leave(), testing::ExitedWithCode(0), "same handle, of nothing$");
}

}  // namespace
}  // namespace tarv::test

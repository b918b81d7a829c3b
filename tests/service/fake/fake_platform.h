// The service's RPC objects on a platform of which the test decides every move.
#ifndef FAKE_PLATFORM_H
#define FAKE_PLATFORM_H

#include <RuntimeManager/Journal.h>
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gtest/gtest.h>
#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <QEvent>
#include <string>
#include <vector>

namespace tarv::test {

inline int argument_count = 1;
inline char program_name[] = "fake_platform_tests";
inline char* arguments[] = {program_name, nullptr};

// All of it is public: C callbacks reach it by their user data.
class FakePlatform : public testing::Test {
 public:
  FakePlatform() : application_(argument_count, arguments) {
    RuntimeManager::Task::GetAll().clear();
    RuntimeManager::TaskMessaging::GetAll().clear();
    TARVProcTableLoad(&root_, sizeof(root_));
    root_.RpcClientProcTableLoad(&table_, sizeof(table_));
    root_.RpcServerProcTableLoad(&server_table_, sizeof(server_table_));
    manager_ = root_.Initialize();
    client_ = root_.CreateRpcClient(manager_);
    TakeJournal();
  }
  ~FakePlatform() override {
    root_.Release(manager_);
    RunDeferredDeletes();
  }

  // What the platform was asked since the last call.
  static std::vector<std::string> TakeJournal() { return RuntimeManager::Journal::Get().Take(); }

  static RuntimeManager::TaskMessaging& Channel() {
    return *RuntimeManager::TaskMessaging::GetAll().at(0);
  }

  // What the client hears becomes a line of the log.
  TARVRpcClientSlots MakeSlots() {
    TARVRpcClientSlots callbacks{};
    callbacks.size = sizeof(callbacks);
    callbacks.OnStarted = [](void* log, int code, const char* text, std::size_t) {
      Log(log, "started " + std::to_string(code) + " " + text);
    };
    callbacks.OnDisconnect = [](void* log, int code, const char* text, std::size_t) {
      Log(log, "disconnect " + std::to_string(code) + " " + text);
    };
    callbacks.OnMessage = [](void* log, const char* text, std::size_t) {
      Log(log, std::string("message ") + text);
    };
    callbacks.Release = [](void* log) { Log(log, "released"); };
    callbacks.user_data = &log_;
    return callbacks;
  }

  // A handle that no object has had.
  template <class Ref>
  static Ref Foreign() {
    return reinterpret_cast<Ref>(0xFFFFFFFFFFFF);
  }

  // Starts the client's task; its completions are then at the test's disposal.
  RuntimeManager::Task& Start() {
    TARVRpcClientSlots callbacks = MakeSlots();
    EXPECT_EQ(table_.StartTask(client_, "worker", "/libs", &callbacks), QUARN_RESULT_SUCCESS);
    return *RuntimeManager::Task::GetAll().at(0);
  }

  static void Log(void* log, const std::string& line) {
    static_cast<std::vector<std::string>*>(log)->push_back(line);
  }

  static void RunDeferredDeletes() {
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  }

  QCoreApplication application_;
  TARVProcTable root_{};
  TARVRpcClientProcTable table_{};
  TARVRpcServerProcTable server_table_{};
  _TARVManagerRef* manager_ = nullptr;
  _TARVRpcClientRef* client_ = nullptr;
  std::vector<std::string> log_;
};

}  // namespace tarv::test

#endif  // FAKE_PLATFORM_H

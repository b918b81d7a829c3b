// A running task, and the conversation with it.
//
// The task is started as a plug-in starts it, by the C interface of libtarv.so; between that and the
// JSON-RPC client, every message of the task is seen, also one that no handler waits for.
#ifndef TARVCTL_SESSION_H
#define TARVCTL_SESSION_H

#include <tarv/calls/caller.h>
#include <tarv/tarv_capi.h>
#include <vorpc/client.h>

#include <QtCore/QTemporaryDir>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "request.h"

namespace tarvctl {

// The name of a task, or "exec:PATH": the program there, as the task of that file's name.
class TaskName {
 public:
  // For exec:PATH, makes a folder with a link to the program and puts it before all other folders
  // of tasks. Throws UsageError when there is no such file.
  explicit TaskName(const std::string& text);

  const std::string& Get() const { return name_; }

 private:
  std::string name_;
  std::optional<QTemporaryDir> folder_;
};

class Session {
 public:
  using OnNotification = std::function<void(const vorpc::Message::Notification&)>;

  // Starts the task. `on_notification` gets what the task tells unasked, but for the notifications
  // of the layer of calls ("$/..."). The time limits what the handshake may take.
  Session(const std::string& task, Duration timeout, OnNotification on_notification);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const std::string& GetTaskName() const { return name_.Get(); }
  tarv::Caller& GetCaller() { return *caller_; }
  vorpc::IClient& GetClient() { return *client_; }
  // Called with every message, before anything else hears of it.
  std::function<void(const vorpc::Message&)> on_message;

 private:
  static void HandleStarted(void* self, int code, const char* message, std::size_t chunk);
  static void HandleDisconnect(void* self, int code, const char* message, std::size_t chunk);
  static void HandleMessage(void* self, const char* message, std::size_t chunk);

  void StartTask();
  void Receive(const std::string& text);

  const TaskName name_;
  const OnNotification on_notification_;
  TARVProcTable root_{};
  TARVRpcClientProcTable rpc_{};
  _TARVManagerRef* manager_ = nullptr;
  _TARVRpcClientRef* ref_ = nullptr;
  std::shared_ptr<vorpc::IOwnedClient> client_;
  std::unique_ptr<tarv::Caller> caller_;
};

}  // namespace tarvctl

#endif  // TARVCTL_SESSION_H

// The service's RPC client: starts a task and relays text to and from it.
#ifndef TARV_SRC_RPC_CLIENT_IMPL_H
#define TARV_SRC_RPC_CLIENT_IMPL_H

#include <RuntimeManager/Task.h>
#include <quarn/listener.h>
#include <quarn/object.h>
#include <tarv/tarv_capi.h>

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "channel.h"
#include "message_log.h"
#include "platform_object.h"
#include "received_texts.h"

namespace tarv {

// The caller's TARVRpcClientSlots as calls. Its Release callback runs exactly once, and what that
// throws is logged.
class RpcClientListener {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  RpcClientListener(PrivateTag, const TARVRpcClientSlots* slots);
  ~RpcClientListener() { Release(); }
  RpcClientListener(const RpcClientListener&) = delete;
  RpcClientListener& operator=(const RpcClientListener&) = delete;

  static std::shared_ptr<RpcClientListener> Create(TARVRpcClientSlots* slots);

  void OnStarted(int code, const char* message, std::size_t chunk) const;
  void OnDisconnect(int code, const char* message, std::size_t chunk) const;
  void OnMessage(const char* message, std::size_t chunk) const;
  // Calls the Release callback and forgets all five fields.
  void Release();
  // Forgets them without a call: they stay the caller's.
  void Disown();

 private:
  decltype(TARVRpcClientSlots::OnStarted) on_started_;
  decltype(TARVRpcClientSlots::OnDisconnect) on_disconnect_;
  decltype(TARVRpcClientSlots::OnMessage) on_message_;
  decltype(TARVRpcClientSlots::Release) release_;
  void* user_data_;
};

// Belongs to the thread that starts the task and to its Qt event loop; HandleSendMessage alone is
// for any thread. Owned by the manager's list, which it leaves by its stop listener once its task
// has stopped.
class RpcClientImpl final : public quarn::Object<RpcClientImpl, _TARVRpcClientRef*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  using StopListener = quarn::IListener<_TARVRpcClientRef*>;

  RpcClientImpl(std::shared_ptr<StopListener> stop_listener, PrivateTag);
  ~RpcClientImpl() override;

  // A registered client; empty, after a log line, when it cannot be made.
  static std::shared_ptr<RpcClientImpl> Create(const std::shared_ptr<StopListener>& stop_listener);

  static QuarnResult HandleLoadProcTable(TARVRpcClientProcTable* table, std::size_t size);
  static QuarnResult HandleStartTask(_TARVRpcClientRef* client, const char* task_name,
                                     const char* libs_path, TARVRpcClientSlots* slots);
  static void RpcUnlockResourcesImpl(_TARVRpcClientRef* client, std::size_t chunk);
  static QuarnResult HandleSendMessage(_TARVRpcClientRef* client, const char* message);
  static void HandleRelease(_TARVRpcClientRef* client);

 private:
  using Channel = details::Channel<RpcClientImpl, _TARVRpcClientRef*>;
  friend Channel;

  // Changed only by compare-and-exchange; whoever makes a transition makes its callbacks.
  enum State : std::uint32_t {
    kIdle = 0,
    kStarting = 1,
    kRunning = 2,
    kStopping = 3,
    kStartFailed = 4,
  };

  using CachedText = details::ReceivedTexts::Text;

  bool Transit(std::uint32_t from, State to) { return state_.compare_exchange_strong(from, to); }

  void StartTask(const std::string& task_name, const std::string& libs_path);
  void OnStartCompleted(const RuntimeManager::Error& error);
  void OnStartFailed(const RuntimeManager::Error& error);
  void OpenMessaging();
  void OnNoChannel();
  template <class Step>
  void OrEnd(const Step& step);
  void OnMessageReceived(const QJsonObject& object);
  void OnTextReceived(QByteArray& text);
  void Release();
  void OnLost(const RuntimeManager::Error& error);
  CachedText Cache(const QString& text);
  void Stop(int code, const char* message, std::size_t chunk);
  void StopTask();
  void AskTaskToStop();
  void OnStop();
  void CleanupMessaging(int code, const char* message, std::size_t chunk);
  void CleanupTask();
  std::shared_ptr<StopListener> TakeStopListener();

  details::ReceivedTexts texts_;
  details::PlatformPtr<RuntimeManager::Task> task_;
  Channel channel_;
  std::shared_ptr<RpcClientListener> listener_;
  std::unique_ptr<details::MessageLog> message_log_;  // null unless it is asked for
  std::atomic<std::uint32_t> state_{kIdle};
  std::mutex stop_mutex_;  // guards stop_listener_, which is taken out exactly once
  std::shared_ptr<StopListener> stop_listener_;
};

}  // namespace tarv

#endif  // TARV_SRC_RPC_CLIENT_IMPL_H

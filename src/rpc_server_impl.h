// The service's RPC server: a task's end of the channel to its starter.
#ifndef TARV_SRC_RPC_SERVER_IMPL_H
#define TARV_SRC_RPC_SERVER_IMPL_H

#include <quarn/object.h>
#include <tarv/tarv_capi.h>

#include <QByteArray>
#include <QJsonObject>
#include <memory>

#include "channel.h"
#include "received_texts.h"

namespace tarv {

// The caller's TARVRpcServerSlots as calls. Its Release callback runs exactly once, and what that
// throws is logged.
class RpcServerListener {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  RpcServerListener(PrivateTag, const TARVRpcServerSlots* slots);
  ~RpcServerListener() { Release(); }
  RpcServerListener(const RpcServerListener&) = delete;
  RpcServerListener& operator=(const RpcServerListener&) = delete;

  static std::shared_ptr<RpcServerListener> Create(TARVRpcServerSlots* slots);

  void OnStarted(int code, const char* message, std::size_t chunk) const;
  void OnMessage(const char* message, std::size_t chunk) const;
  // Calls the Release callback and forgets all four fields.
  void Release();
  // Forgets them without a call: they stay the caller's.
  void Disown();

 private:
  decltype(TARVRpcServerSlots::OnStarted) on_started_;
  decltype(TARVRpcServerSlots::OnMessage) on_message_;
  decltype(TARVRpcServerSlots::Release) release_;
  void* user_data_;
};

// Belongs to the thread that runs it and to its Qt event loop; HandleSendMessage alone is for any
// thread. Owned by the manager; runs from Run until it dies.
class RpcServerImpl final : public quarn::Object<RpcServerImpl, _TARVRpcServerRef*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  explicit RpcServerImpl(PrivateTag);
  ~RpcServerImpl() override;

  // A registered server; empty when it cannot be made.
  static std::shared_ptr<RpcServerImpl> Create();

  static QuarnResult HandleLoadProcTable(TARVRpcServerProcTable* table, std::size_t size);
  static void HandleRun(_TARVRpcServerRef* server, TARVRpcServerSlots* slots);
  static void HandleUnlockResources(_TARVRpcServerRef* server, std::size_t chunk);
  static QuarnResult HandleSendMessage(_TARVRpcServerRef* server, const char* message);

 private:
  using Channel = details::Channel<RpcServerImpl, _TARVRpcServerRef*>;
  friend Channel;

  void Run(TARVRpcServerSlots* slots);
  void OnMessageReceived(const QJsonObject& object);
  void OnTextReceived(QByteArray& text);
  template <class Step>
  void OrEnd(const Step& step);

  details::ReceivedTexts texts_;
  std::shared_ptr<RpcServerListener> listener_;
  Channel channel_;  // open while the server runs
};

}  // namespace tarv

#endif  // TARV_SRC_RPC_SERVER_IMPL_H

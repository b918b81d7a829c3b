// tarv::RpcClient: a JSON-RPC client of a background task.
#ifndef TARV_RPC_CLIENT_H
#define TARV_RPC_CLIENT_H

#include <quarn/export.h>
#include <quarn/library_api.h>
#include <quarn/object.h>
#include <quarn/run_once_signal.h>
#include <tarv/tarv_capi.h>
#include <tarv/task_client.h>
#include <vorpc/client.h>
#include <vorpc/requests.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct TARV_EXPORT _RpcClientWrapperRef;

namespace tarv {
class TARV_EXPORT RpcClient;
}

// Made in libtarv.so, so that a plug-in finds its objects by their handles, too.
extern template class TARV_EXPORT quarn::Object<tarv::RpcClient, _RpcClientWrapperRef*>;

namespace tarv {

// Joins the service's client, which moves texts, with a vorpc client, which gives them meaning.
// Made by ManagerWrapper::CreateIpcClient. Its last owner ends the task. See vorpc::IClient,
// vorpc::IRequests and ITaskClient for the operations; callbacks run on the thread whose event loop
// started the task, and may let go of the client.
class TARV_EXPORT RpcClient final : public quarn::Object<RpcClient, _RpcClientWrapperRef*>,
                                    public vorpc::IClient,
                                    public vorpc::IRequests,
                                    public ITaskClient {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  using Api = quarn::LibraryApi<TARVRpcClientProcTable>;

  RpcClient(const std::shared_ptr<quarn::IDispatcher>& dispatcher, const std::shared_ptr<Api>& api,
            _TARVRpcClientRef* client, PrivateTag);
  ~RpcClient() override;

  // Starts the task `name` with the service's `client`. Empty without a table or a handle, when the
  // table lacks an entry, which is logged, or when the service refuses.
  static std::shared_ptr<vorpc::IClient> Create(
      const std::shared_ptr<quarn::IDispatcher>& dispatcher, const std::string& name,
      const std::shared_ptr<Api>& api, _TARVRpcClientRef* client);

  bool IsConnected() const override;
  bool HasConnectionFailed() const override;
  void Run() override;
  void OnConnected(
      std::function<void(const std::optional<vorpc::Message::Error>&)>&& callback) override;
  void OnDisconnected(
      std::function<void(const std::optional<vorpc::Message::Error>&)>&& callback) override;
  void SendRequest(std::string_view method, const cw::EncodableValue& params,
                   std::function<void(const vorpc::Message::Response&)>&& callback) override;
  vorpc::Message::ID StartRequest(
      std::string_view method, const cw::EncodableValue& params,
      std::function<void(const vorpc::Message::Response&)>&& callback) override;
  bool ForgetRequest(const vorpc::Message::ID& id) override;
  void SendNotify(std::string_view method, const cw::EncodableValue& params) override;
  void OnNotify(std::string_view method,
                std::function<void(const vorpc::Message::Notification&)>&& callback) override;
  const std::string& GetTaskName() const override { return name_; }
  void OnManagerEnded(std::function<void(EndedManager)>&& callback) override;

  // What a ManagerWrapper's end calls.
  static void TellManagerEnded(_RpcClientWrapperRef* client, EndedManager manager);

 private:
  static void HandleOnStarted(void* user_data, int code, const char* message, std::size_t chunk);
  static void HandleOnMessage(void* user_data, const char* message, std::size_t chunk);
  static void HandleOnDisconnect(void* user_data, int code, const char* message, std::size_t chunk);

  QuarnResult StartTask(const std::string& name);
  void UnlockResources(std::size_t chunk) const;

  std::shared_ptr<Api> api_;
  _TARVRpcClientRef* client_;
  std::shared_ptr<vorpc::IOwnedClient> owned_;
  vorpc::IRequests* requests_;  // the same object
  std::string name_;            // of the task
  quarn::OwnedRunOnceSignal<EndedManager> manager_ended_;
  std::atomic<bool> let_go_{false};  // by its user
};

}  // namespace tarv

#endif  // TARV_RPC_CLIENT_H

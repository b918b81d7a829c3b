// tarv::RpcServer: the JSON-RPC server of a task process.
#ifndef TARV_RPC_SERVER_H
#define TARV_RPC_SERVER_H

#include <quarn/export.h>
#include <quarn/library_api.h>
#include <quarn/object.h>
#include <tarv/tarv_capi.h>
#include <vorpc/server.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct TARV_EXPORT _RpcServerWrapperRef;

namespace tarv {
class TARV_EXPORT RpcServer;
}

// Made in libtarv.so, so that a plug-in finds its objects by their handles, too.
extern template class TARV_EXPORT quarn::Object<tarv::RpcServer, _RpcServerWrapperRef*>;

namespace tarv {

// Joins the service's server, which moves texts, with a vorpc server, which gives them meaning.
// Made by ManagerWrapper::CreateRpcServer. See vorpc::IServer for the operations; callbacks run on
// the thread that called Run, and may let go of the server.
class TARV_EXPORT RpcServer final : public quarn::Object<RpcServer, _RpcServerWrapperRef*>,
                                    public vorpc::IServer {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  using Api = quarn::LibraryApi<TARVRpcServerProcTable>;

  RpcServer(const std::shared_ptr<quarn::IDispatcher>& dispatcher, const std::shared_ptr<Api>& api,
            _TARVRpcServerRef* server, PrivateTag);
  ~RpcServer() override;

  // Empty without a table or a handle, or when the table lacks an entry, which is logged.
  static std::shared_ptr<vorpc::IServer> Create(
      const std::shared_ptr<quarn::IDispatcher>& dispatcher, const std::shared_ptr<Api>& api,
      _TARVRpcServerRef* server);

  void SendNotify(std::string_view method, const cw::EncodableValue& params) override;
  void OnConnected(
      std::function<void(const std::optional<vorpc::Message::Error>&)>&& callback) override;
  void OnRequest(std::string_view method, RequestHandler handler) override;
  void OnNotify(std::string_view method,
                std::function<void(const vorpc::Message::Notification&)>&& callback) override;
  // Opens the channel to the starter. Takes effect once in a process; handlers may come before or
  // after.
  void Run() override;

 private:
  static void HandleOnStarted(void* user_data, int code, const char* message, std::size_t chunk);
  static void HandleOnMessage(void* user_data, const char* message, std::size_t chunk);

  void UnlockResources(std::size_t chunk) const;

  std::shared_ptr<Api> api_;
  _TARVRpcServerRef* server_;
  std::shared_ptr<vorpc::IOwnedServer> owned_;
};

}  // namespace tarv

#endif  // TARV_RPC_SERVER_H

// tarv::ManagerWrapper: where a plug-in begins.
//
//   auto manager = tarv::ManagerWrapper::Create(registrar);
//   auto client = manager->CreateIpcClient("checksums");   // in an application: starts the task
//   auto server = manager->CreateRpcServer();              // in a task: serves its starter
#ifndef TARV_MANAGER_WRAPPER_H
#define TARV_MANAGER_WRAPPER_H

#include <quarn/dispatcher.h>
#include <quarn/export.h>
#include <quarn/library_api.h>
#include <tarv/intent_manager.h>
#include <tarv/tarv_capi.h>
#include <vorpc/client.h>
#include <vorpc/server.h>

#include <filesystem>
#include <memory>
#include <string>

namespace cw {
class PluginRegistrar;
}

namespace tarv {

// Loads libtarv.so at run time and hands out what it offers. Belongs to the thread that made it,
// the plug-in's platform thread, which must run a Qt event loop; callbacks of the objects that it
// makes run there too. Destroy those objects before the manager: the service behind them ends with
// it.
class TARV_EXPORT ManagerWrapper {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  using Api = quarn::LibraryApi<TARVProcTable>;

  ManagerWrapper(const std::shared_ptr<quarn::IDispatcher>& dispatcher, std::unique_ptr<Api> api,
                 _TARVManagerRef* manager, PrivateTag);
  // Ends the service. An exception of a callback that learns of it becomes an error line.
  ~ManagerWrapper();
  ManagerWrapper(const ManagerWrapper&) = delete;
  ManagerWrapper& operator=(const ManagerWrapper&) = delete;

  // Loads the library from the registrar's library folder. Empty for a null registrar, and when the
  // library cannot be used, which is logged.
  static std::unique_ptr<ManagerWrapper> Create(cw::PluginRegistrar* registrar);
  // Loads the library from `directory`, which must not be empty. Objects made later get
  // `dispatcher`.
  static std::unique_ptr<ManagerWrapper> Create(
      const std::shared_ptr<quarn::IDispatcher>& dispatcher,
      const std::filesystem::path& directory);

  // Opens URIs. Empty on failure.
  std::unique_ptr<IntentManager> GetIntentManager();

  // Starts the task `name` and returns the client that will talk to it: subscribe to what interests
  // you, then call Run(). A task that cannot be started shows as a failed connection. Empty when
  // the library refuses, and, after an error line, for a name that holds a NUL.
  std::shared_ptr<vorpc::IClient> CreateIpcClient(const std::string& name) const;

  // The server by which this task process answers its starter: register handlers, then call Run().
  // Empty on failure.
  std::shared_ptr<vorpc::IServer> CreateRpcServer() const;

  // Expires as the destructor begins: for those who keep a reference to this manager, to use it
  // later on its thread. Any thread.
  std::weak_ptr<const void> GetLifetime() const;

 private:
  std::shared_ptr<quarn::IDispatcher> dispatcher_;
  std::unique_ptr<Api> api_;
  _TARVManagerRef* manager_;
};

}  // namespace tarv

#endif  // TARV_MANAGER_WRAPPER_H

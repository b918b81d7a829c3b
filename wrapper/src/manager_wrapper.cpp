#include <cw/plugin_registrar.h>
#include <quarn/escaped.h>
#include <quarn/library.h>
#include <quarn/logger.h>
#include <tarv/manager_wrapper.h>
#include <tarv/rpc_client.h>
#include <tarv/rpc_server.h>

#include <exception>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "made_clients.h"

namespace tarv {
namespace {

constexpr char kLibraryName[] = "libtarv.so";
constexpr char kEntryName[] = "TARVProcTableLoad";

std::unique_ptr<ManagerWrapper::Api> LoadApi(const std::filesystem::path& directory) {
  const std::filesystem::path path = directory / kLibraryName;
  if (directory.empty()) {
    // The loader would look for a bare name wherever it looks for libraries, and tasks could not be
    // told where theirs are.
    QUARN_LOG_ERROR() << "Couldn't load library \"" << path
                      << "\": the application's library folder is unknown; see to it that the "
                         "embedder reports one";
    return nullptr;
  }
  const auto library = quarn::Library::Create(path);
  if (!library) {
    return nullptr;
  }
  return ManagerWrapper::Api::Create(
      library, library->Resolve<QuarnResult(TARVProcTable*, std::size_t)>(kEntryName));
}

void LogThrow(std::string_view what) {
  QUARN_LOG_ERROR() << "A callback that learned of the manager's end threw: "
                    << quarn::Escaped{what}
                    << ". Nothing can hear of it there: catch it in the callback.";
}

// Callbacks that learn of the end run inside the destructor, which lets nothing through.
template <class Step>
void RunAndLog(const Step& step) {
  try {
    step();
  } catch (const std::exception& error) {
    LogThrow(error.what());
  } catch (...) {
    LogThrow("no std::exception");
  }
}

// The lifetimes of the managers there are. They lie here, not in the managers, whose size programs of
// the last release know.
class Lifetimes {
 public:
  // Never destroyed: managers of static life use it at the end of the process.
  static Lifetimes& Get() {
    static auto* const kLifetimes = new Lifetimes();
    return *kLifetimes;
  }

  void Begin(const ManagerWrapper* manager) {
    const auto lifetime = std::make_shared<char>();
    const std::lock_guard lock(mutex_);
    lifetimes_[manager] = lifetime;
  }
  std::weak_ptr<const void> Find(const ManagerWrapper* manager) {
    const std::lock_guard lock(mutex_);
    const auto found = lifetimes_.find(manager);
    return found == lifetimes_.end() ? std::shared_ptr<const void>() : found->second;
  }
  void End(const ManagerWrapper* manager) {
    const std::lock_guard lock(mutex_);
    lifetimes_.erase(manager);
  }

 private:
  std::mutex mutex_;
  std::unordered_map<const ManagerWrapper*, std::shared_ptr<const void>> lifetimes_;
};

}  // namespace

ManagerWrapper::ManagerWrapper(const std::shared_ptr<quarn::IDispatcher>& dispatcher,
                               std::unique_ptr<Api> api, _TARVManagerRef* manager, PrivateTag)
    : dispatcher_(dispatcher), api_(std::move(api)), manager_(manager) {
  Lifetimes::Get().Begin(this);
}

ManagerWrapper::~ManagerWrapper() {
  Lifetimes::Get().End(this);
  // Tested for null alone: a table that states a small size may still hold this entry.
  if (api_ && manager_ != nullptr && api_->GetTable().Release != nullptr) {
    const auto clients = details::MadeClients::Get().TakeClientsOf(manager_);
    RunAndLog([this] { api_->GetTable().Release(manager_); });
    for (const auto& [ref, maker] : clients) {
      const auto ended = maker.manager == this ? EndedManager::kOwn : EndedManager::kAnother;
      RunAndLog([ref = ref, ended] { RpcClient::TellManagerEnded(ref, ended); });
    }
  }
  api_.reset();
}

std::unique_ptr<ManagerWrapper> ManagerWrapper::Create(cw::PluginRegistrar* registrar) {
  if (registrar == nullptr) {
    return nullptr;
  }
  return Create(registrar->GetApplicationWrapper(), registrar->GetLibraryPath());
}

std::unique_ptr<ManagerWrapper> ManagerWrapper::Create(
    const std::shared_ptr<quarn::IDispatcher>& dispatcher, const std::filesystem::path& directory) {
  auto api = LoadApi(directory);
  if (!api) {
    return nullptr;
  }
  _TARVManagerRef* const manager = quarn::CallEntry(QUARN_FIND_ENTRY(api->GetTable(), Initialize),
                                                    static_cast<_TARVManagerRef*>(nullptr));
  if (manager == nullptr) {
    return nullptr;
  }
  return std::make_unique<ManagerWrapper>(dispatcher, std::move(api), manager, PrivateTag());
}

std::unique_ptr<IntentManager> ManagerWrapper::GetIntentManager() {
  const auto load_table = QUARN_FIND_ENTRY(api_->GetTable(), IntentManagerProcTableLoad);
  if (load_table == nullptr) {
    return nullptr;
  }
  const auto get_intent_manager = QUARN_FIND_ENTRY(api_->GetTable(), GetIntentManager);
  if (get_intent_manager == nullptr) {
    return nullptr;
  }
  auto api = IntentManager::Api::Create(api_->GetLibrary(), load_table);
  if (!api) {
    return nullptr;
  }
  return IntentManager::Create(std::move(api), get_intent_manager(manager_));
}

std::shared_ptr<vorpc::IClient> ManagerWrapper::CreateIpcClient(const std::string& name) const {
  const auto create_client = QUARN_FIND_ENTRY(api_->GetTable(), CreateRpcClient);
  if (create_client == nullptr) {
    return nullptr;
  }
  const auto load_table = QUARN_FIND_ENTRY(api_->GetTable(), RpcClientProcTableLoad);
  if (load_table == nullptr) {
    return nullptr;
  }
  _TARVRpcClientRef* const client = create_client(manager_);
  if (client == nullptr) {
    return nullptr;
  }
  const std::shared_ptr<RpcClient::Api> api =
      RpcClient::Api::Create(api_->GetLibrary(), load_table);
  auto made = RpcClient::Create(dispatcher_, name, api, client);
  if (made) {
    details::MadeClients::Get().Add(static_cast<const RpcClient&>(*made).GetRef(),
                                    {this, manager_});
  }
  return made;
}

std::shared_ptr<vorpc::IServer> ManagerWrapper::CreateRpcServer() const {
  const auto get_server = QUARN_FIND_ENTRY(api_->GetTable(), GetRpcServer);
  if (get_server == nullptr) {
    return nullptr;
  }
  const auto load_table = QUARN_FIND_ENTRY(api_->GetTable(), RpcServerProcTableLoad);
  if (load_table == nullptr) {
    return nullptr;
  }
  _TARVRpcServerRef* const server = get_server(manager_);
  if (server == nullptr) {
    return nullptr;
  }
  const std::shared_ptr<RpcServer::Api> api =
      RpcServer::Api::Create(api_->GetLibrary(), load_table);
  return RpcServer::Create(dispatcher_, api, server);
}

std::weak_ptr<const void> ManagerWrapper::GetLifetime() const {
  return Lifetimes::Get().Find(this);
}

}  // namespace tarv

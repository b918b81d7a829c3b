#include <tarv/calls/service.h>

#include <mutex>
#include <unordered_map>

#include "service_core.h"

namespace tarv {

namespace {

// The services there are, by their servers.
struct Registry {
  std::mutex mutex;
  std::unordered_map<const vorpc::IServer*, std::weak_ptr<Service>> services;
};

Registry& GetRegistry() {
  static Registry registry;
  return registry;
}

}  // namespace

std::shared_ptr<Service> Service::For(const std::shared_ptr<vorpc::IServer>& server,
                                      std::shared_ptr<Loop> loop) {
  if (!server) {
    return nullptr;
  }
  Registry& registry = GetRegistry();
  const std::lock_guard lock(registry.mutex);
  std::weak_ptr<Service>& known = registry.services[server.get()];
  auto service = known.lock();
  if (!service) {
    service = std::make_shared<Service>(server, std::move(loop), PrivateTag());
    known = service;
  }
  return service;
}

Service::Service(const std::shared_ptr<vorpc::IServer>& server, std::shared_ptr<Loop> loop,
                 PrivateTag)
    : core_(std::make_shared<details::ServiceCore>(server, std::move(loop))) {
  core_->Start();
}

Service::~Service() {
  Registry& registry = GetRegistry();
  {
    const std::lock_guard lock(registry.mutex);
    const auto found = registry.services.find(&core_->GetServer());
    if (found != registry.services.end() && found->second.expired()) {
      registry.services.erase(found);
    }
  }
  core_->Withdraw();
}

void Service::Run() { core_->GetServer().Run(); }

Metrics Service::GetMetrics() const { return core_->GetMeter().GetMetrics(); }

Description Service::GetDescription() const { return core_->GetDescription(); }

void Service::Add(MethodDescription description, details::Handler handler) {
  core_->Add(std::move(description), std::move(handler));
}

}  // namespace tarv

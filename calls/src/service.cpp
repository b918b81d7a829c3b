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
  const auto known = registry.services.try_emplace(server.get()).first;
  auto service = known->second.lock();
  if (service) {
    return service;
  }
  try {
    service = std::make_shared<Service>(server, std::move(loop), PrivateTag());
  } catch (...) {
    registry.services.erase(known);
    throw;
  }
  known->second = service;
  return service;
}

Service::Service(const std::shared_ptr<vorpc::IServer>& server, std::shared_ptr<Loop> loop,
                 PrivateTag)
    : core_(std::make_shared<details::ServiceCore>(server, std::move(loop))) {
  try {
    core_->Start();
  } catch (...) {
    core_->Withdraw();
    throw;
  }
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

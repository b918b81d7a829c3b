#include <RuntimeManager/RuntimeDispatcher.h>

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "activation.h"
#include "intent_owner.h"
#include "support.h"

namespace RuntimeManager {

class RuntimeDispatcher::Private {
 public:
  std::mutex mutex;
  std::vector<std::unique_ptr<host::IntentOwner>> intents;
};

RuntimeDispatcher::RuntimeDispatcher() : d_(std::make_unique<Private>()) {}

RuntimeDispatcher::~RuntimeDispatcher() = default;

RuntimeDispatcher* RuntimeDispatcher::instance() {
  // Never destroyed: handlers of intents answer through it until the process ends.
  static auto* const dispatcher = [] {
    static_cast<void>(host::GetActivation());
    return new RuntimeDispatcher;
  }();
  return dispatcher;
}

int RuntimeDispatcher::localServerSocket() const { return host::GetActivation().socket; }

void RuntimeDispatcher::registerIntent(const QString& name, IntentHandler handler) {
  Error error;
  auto owner = host::IntentOwner::Register(name, std::move(handler), &error);
  if (owner == nullptr) {
    host::Warn(QString("the intent '%1' is not registered: %2").arg(name, error.message()));
    return;
  }
  const std::lock_guard lock(d_->mutex);
  d_->intents.push_back(std::move(owner));
}

}  // namespace RuntimeManager

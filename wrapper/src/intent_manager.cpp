#include <quarn/slot.h>
#include <tarv/intent_manager.h>

#include <utility>

#include "c_text.h"

namespace tarv {

IntentManager::IntentManager(std::unique_ptr<Api> api, _TARVIntentManagerRef* intents, PrivateTag)
    : api_(std::move(api)), intents_(intents) {}

IntentManager::~IntentManager() = default;

std::unique_ptr<IntentManager> IntentManager::Create(std::unique_ptr<Api> api,
                                                     _TARVIntentManagerRef* intents) {
  if (!api || intents == nullptr) {
    return nullptr;
  }
  return std::make_unique<IntentManager>(std::move(api), intents, PrivateTag());
}

void IntentManager::OpenUri(const std::string& uri, std::function<void(bool)>&& callback) {
  auto taken = std::move(callback);  // where the service does not take it, it is gone on return
  const auto open_uri = QUARN_FIND_ENTRY(api_->GetTable(), OpenUri);
  if (open_uri == nullptr || !details::ReachesCWhole(uri, "URI to open")) {
    return;
  }
  auto slot = quarn::CreateSlot<TARVOpenUriSlot, bool>(std::move(taken));
  // A service that refuses has not taken the slot; what it holds is then deliberately left alone,
  // since a service that did take it releases it, also when it throws.
  open_uri(intents_, uri.c_str(), &slot);
}

}  // namespace tarv

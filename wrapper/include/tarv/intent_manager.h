// tarv::IntentManager: asks the platform to open URIs.
#ifndef TARV_INTENT_MANAGER_H
#define TARV_INTENT_MANAGER_H

#include <quarn/export.h>
#include <quarn/library_api.h>
#include <tarv/tarv_capi.h>

#include <functional>
#include <memory>
#include <string>

namespace tarv {

// Belongs to the thread of the ManagerWrapper that made it.
class TARV_EXPORT IntentManager {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  using Api = quarn::LibraryApi<TARVIntentManagerProcTable>;

  IntentManager(std::unique_ptr<Api> api, _TARVIntentManagerRef* intents, PrivateTag);
  ~IntentManager();
  IntentManager(const IntentManager&) = delete;
  IntentManager& operator=(const IntentManager&) = delete;

  // Empty without a table or a handle.
  static std::unique_ptr<IntentManager> Create(std::unique_ptr<Api> api,
                                               _TARVIntentManagerRef* intents);

  // Asks the platform to open `uri`. `callback`, which must not be empty, is called once with the
  // outcome, on the thread that learns it; requests are served one at a time, in order. It is never
  // called when the service refuses the request or ends before it is served.
  void OpenUri(const std::string& uri, std::function<void(bool)>&& callback);

 private:
  std::unique_ptr<Api> api_;
  _TARVIntentManagerRef* intents_;
};

}  // namespace tarv

#endif  // TARV_INTENT_MANAGER_H

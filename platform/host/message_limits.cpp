#include "message_limits.h"

#include "support.h"

namespace RuntimeManager::host {

Limits ReadLimits() {
  return {
      NumberFrom("RUNTIME_MANAGER_MAX_MESSAGE", "bytes", kDefaultMaxMessage, kLargestMaxMessage),
      NumberFrom("RUNTIME_MANAGER_MAX_QUEUE", "bytes", kDefaultMaxQueue, kLargestMaxQueue)};
}

}  // namespace RuntimeManager::host

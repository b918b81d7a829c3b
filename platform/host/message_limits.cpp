#include "message_limits.h"

namespace RuntimeManager::host {

Limits ReadLimits() { return {NumberFrom(kMaxMessageRule), NumberFrom(kMaxQueueRule)}; }

}  // namespace RuntimeManager::host

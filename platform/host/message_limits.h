// The bounds of messages and queues, with what the environment sets.
#ifndef RUNTIME_MANAGER_HOST_MESSAGE_LIMITS_H
#define RUNTIME_MANAGER_HOST_MESSAGE_LIMITS_H

#include <cstddef>

#include "support.h"

namespace RuntimeManager::host {

constexpr std::size_t kMiB = std::size_t{1} << 20U;

// One line, without its end. Four times the largest payload that plug-ins are known to send.
constexpr std::size_t kDefaultMaxMessage = 256 * kMiB;
// Text of that many bytes is at most twice as many in UTF-16, and buffers grow by doubling: both
// still fit the 31-bit sizes of Qt's containers.
constexpr std::size_t kLargestMaxMessage = 512 * kMiB;
// Two of the largest messages.
constexpr std::size_t kDefaultMaxQueue = 512 * kMiB;
// A queue holds many buffers; only its sum is bounded, so that it cannot overflow.
constexpr std::size_t kLargestMaxQueue = std::size_t{1} << 40U;

constexpr NumberRule kMaxMessageRule{"RUNTIME_MANAGER_MAX_MESSAGE", "bytes", kDefaultMaxMessage,
                                     kLargestMaxMessage};
constexpr NumberRule kMaxQueueRule{"RUNTIME_MANAGER_MAX_QUEUE", "bytes", kDefaultMaxQueue,
                                   kLargestMaxQueue};

struct Limits {
  std::size_t max_message = kDefaultMaxMessage;  // RUNTIME_MANAGER_MAX_MESSAGE
  std::size_t max_queue = kDefaultMaxQueue;      // RUNTIME_MANAGER_MAX_QUEUE
};

// The limits that the environment asks for. A value that is not a number of bytes from 1 to the
// largest is a warning, once, and the default holds.
Limits ReadLimits();

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_MESSAGE_LIMITS_H

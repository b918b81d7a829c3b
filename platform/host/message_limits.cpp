#include "message_limits.h"

#include "support.h"

namespace RuntimeManager::host {
namespace {

std::size_t ReadLimit(const char* variable, std::size_t by_default, std::size_t largest) {
  const QByteArray text = Variable(variable);
  if (text.isEmpty()) {
    return by_default;
  }
  bool is_number = false;
  const qulonglong value = text.toULongLong(&is_number, 10);
  if (is_number && value >= 1 && value <= largest) {
    return value;
  }
  Warn(QString("%1 is '%2': it must be a number of bytes from 1 to %3; the "
               "default of %4 holds")
           .arg(variable, Escaped(text))
           .arg(largest)
           .arg(by_default));
  return by_default;
}

}  // namespace

Limits ReadLimits() {
  return {ReadLimit("RUNTIME_MANAGER_MAX_MESSAGE", kDefaultMaxMessage, kLargestMaxMessage),
          ReadLimit("RUNTIME_MANAGER_MAX_QUEUE", kDefaultMaxQueue, kLargestMaxQueue)};
}

}  // namespace RuntimeManager::host

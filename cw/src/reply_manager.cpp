#include <cw/internal/diagnostics.h>
#include <cw/reply_manager.h>

#include <utility>

#include "assert.h"

namespace cw::internal {

ReplyManager::ReplyManager(BinaryReply reply_handler) : reply_handler_(std::move(reply_handler)) {
  CW_ASSERT(reply_handler_, "a ReplyManager needs a function that sends the reply.");
}

ReplyManager::~ReplyManager() {
  if (reply_handler_) {
    WriteDiagnostic("Warning: Failed to respond to a message. This is a memory leak.\n");
  }
}

void ReplyManager::SendResponseData(const std::vector<std::uint8_t>* data) {
  if (!reply_handler_) {
    WriteDiagnostic(
        "Error: Only one of Success, Error, or NotImplemented can be called,"
        " and it can be called exactly once. Ignoring duplicate result.\n");
    return;
  }
  // Taken out first: the function may come back here, throw, or destroy this object.
  const BinaryReply reply = std::exchange(reply_handler_, nullptr);
  if (data == nullptr || data->empty()) {
    reply(nullptr, 0);
  } else {
    reply(data->data(), data->size());
  }
}

}  // namespace cw::internal

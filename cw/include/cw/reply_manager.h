// cw::internal::ReplyManager: sees to it that a message is answered at most once.
#ifndef CW_REPLY_MANAGER_H
#define CW_REPLY_MANAGER_H

#include <cw/binary_reply.h>
#include <quarn/export.h>

#include <cstdint>
#include <vector>

namespace cw::internal {

// Belongs to one thread at a time. Its complaints are whole lines on standard error.
class TARV_EXPORT ReplyManager {
 public:
  // An empty function stops the process by an assertion.
  explicit ReplyManager(BinaryReply reply_handler);

  // Complains when nothing was ever sent, and sends nothing.
  ~ReplyManager();

  ReplyManager(const ReplyManager&) = delete;
  ReplyManager& operator=(const ReplyManager&) = delete;

  // Sends the reply; null or no bytes for "not implemented". A second call complains and is
  // dropped, also from inside the reply function, which may destroy this object.
  void SendResponseData(const std::vector<std::uint8_t>* data);

 private:
  BinaryReply reply_handler_;  // empty once the reply has been sent
};

}  // namespace cw::internal

#endif  // CW_REPLY_MANAGER_H

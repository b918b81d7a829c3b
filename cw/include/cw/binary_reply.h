// cw::BinaryReply: the function that answers one incoming message.
#ifndef CW_BINARY_REPLY_H
#define CW_BINARY_REPLY_H

#include <cstddef>
#include <cstdint>
#include <functional>

namespace cw {

// Sends the bytes as the reply; null and 0 for an empty one. They need to live during the call
// only.
using BinaryReply = std::function<void(const std::uint8_t* data, std::size_t size)>;

}  // namespace cw

#endif  // CW_BINARY_REPLY_H

// How a message becomes the text that travels, and back.
#ifndef WRAPPER_SRC_TEXTS_H
#define WRAPPER_SRC_TEXTS_H

#include <vorpc/message.h>

#include <optional>
#include <string>
#include <utility>

namespace tarv::details {

// Both let go of what they were made of before they return: of a large payload, only one form at a
// time shall be in memory.

// Empty when there is nothing to send.
inline std::string Encode(vorpc::Message&& message) {
  const vorpc::Message content = std::move(message);
  return content.ToBase64();
}

// None for an empty text.
inline std::optional<vorpc::Message> Decode(const char* message) {
  const std::string text(message);
  if (text.empty()) {
    return std::nullopt;
  }
  return vorpc::Message::FromBase64(text);
}

}  // namespace tarv::details

#endif  // WRAPPER_SRC_TEXTS_H

// How a message becomes the text that travels, and back.
#ifndef WRAPPER_SRC_TEXTS_H
#define WRAPPER_SRC_TEXTS_H

#include <quarn/strings.h>
#include <vorpc/message.h>
#include <vorpc/message_text.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace tarv::details {

// Empty when there is nothing to send. Lets go of the message before it returns: of a large
// payload, only one form at a time shall be in memory.
inline std::string Encode(vorpc::Message&& message) {
  const vorpc::Message content = std::move(message);
  return content.ToBase64();
}

// None for an empty text. Throws std::logic_error for null.
inline std::optional<vorpc::Message> Decode(const char* message) {
  const std::string_view text = quarn::strings::ViewOf(message);
  if (text.empty()) {
    return std::nullopt;
  }
  return vorpc::MessageFromText(text);
}

}  // namespace tarv::details

#endif  // WRAPPER_SRC_TEXTS_H

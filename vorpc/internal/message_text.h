// The text form of a message, read where it lies.
#ifndef VORPC_INTERNAL_MESSAGE_TEXT_H
#define VORPC_INTERNAL_MESSAGE_TEXT_H

#include <vorpc/message.h>

#include <string_view>

namespace vorpc {

// As Message::FromBase64, without a copy of the text. Throws std::bad_alloc when memory runs out.
Message MessageFromText(std::string_view text);

}  // namespace vorpc

#endif  // VORPC_INTERNAL_MESSAGE_TEXT_H

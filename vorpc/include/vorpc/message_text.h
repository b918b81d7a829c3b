// The text form of a message, read where it lies. Inside the library only.
#ifndef VORPC_MESSAGE_TEXT_H
#define VORPC_MESSAGE_TEXT_H

#include <vorpc/message.h>

#include <string_view>

namespace vorpc {

// As Message::FromBase64.
Message MessageFromText(std::string_view text);

}  // namespace vorpc

#endif  // VORPC_MESSAGE_TEXT_H

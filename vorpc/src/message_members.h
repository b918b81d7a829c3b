// The members of a message's map, and the rules that they must keep.
#ifndef VORPC_SRC_MESSAGE_MEMBERS_H
#define VORPC_SRC_MESSAGE_MEMBERS_H

#include <cw/encodable_value.h>
#include <vorpc/message.h>

#include <string_view>

namespace vorpc::details {

constexpr std::string_view kVersion = "2.0";

// The members that a message may be made of. Null where one is missing.
struct Members {
  cw::EncodableValue* error;
  cw::EncodableValue* id;
  cw::EncodableValue* version;
  cw::EncodableValue* method;
  cw::EncodableValue* params;
  cw::EncodableValue* result;
};

// The message that these members make, with their values moved into it; or what is wrong with them,
// as Message::FromEncodable says.
Message MakeMessage(const Members& members);

// The error that stands for a message of which not even the members can be told.
Message MakeUnreadable();

}  // namespace vorpc::details

#endif  // VORPC_SRC_MESSAGE_MEMBERS_H

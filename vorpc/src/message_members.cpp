#include "message_members.h"

#include <quarn/logger.h>

#include <algorithm>
#include <array>
#include <limits>
#include <utility>

namespace vorpc {
namespace details {
namespace {

Message ParseFailure(std::string_view text) {
  return Message::CreateError(Message::kParseError, text);
}

// The values under these keys, in their order; null where the map has none. One walk over the map
// finds them all faster than as many searches, each of which would make a value of its key.
template <std::size_t kCount>
std::array<cw::EncodableValue*, kCount> FindMembers(
    cw::EncodableMap& map, const std::array<std::string_view, kCount>& keys) {
  std::array<cw::EncodableValue*, kCount> members{};
  for (auto& [key, value] : map) {
    const std::string* const text = key.AsString();
    const auto* const found =
        text == nullptr ? keys.end() : std::find(keys.begin(), keys.end(), *text);
    if (found != keys.end()) {
      members[static_cast<std::size_t>(found - keys.begin())] = &value;
    }
  }
  return members;
}

// The member's value, moved out; null when there is none.
cw::EncodableValue Take(cw::EncodableValue* member) {
  return member == nullptr ? cw::EncodableValue() : std::move(*member);
}

Members FindMembers(cw::EncodableMap& map) {
  const auto [error, id, version, method, params, result] =
      FindMembers<6>(map, {"error", "id", "jsonrpc", "method", "params", "result"});
  return {error, id, version, method, params, result};
}

bool HasVersion(const Members& members) {
  const auto* const version = std::get_if<std::string>(members.version);
  return version != nullptr && *version == kVersion;
}

// The id that the value itself is; its text is moved out of a value that is not const.
template <class Value>
std::optional<Message::ID> ReadId(Value& value) {
  if (auto* const text = std::get_if<std::string>(&value); text != nullptr && !text->empty()) {
    Message::ID id("");
    id.value = std::move(*text);
    return id;
  }
  if (const auto number = value.AsInt64()) {
    return Message::ID(*number);
  }
  return std::nullopt;
}

// As Message::ID::FromEncodable, moving the text out.
std::optional<Message::ID> TakeId(cw::EncodableValue& value) {
  if (auto* const map = std::get_if<cw::EncodableMap>(&value)) {
    const auto [member] = FindMembers<1>(*map, {"id"});
    return member == nullptr ? std::nullopt : ReadId(*member);
  }
  return ReadId(value);
}

// A map with a method: a request if it has an id, else a notification.
Message CallFromMembers(const Members& members) {
  auto* const method = std::get_if<std::string>(members.method);
  if (method == nullptr || method->empty()) {
    QUARN_LOG_ERROR() << "Method name is empty in RPC "
                      << (members.id != nullptr ? "request" : "notification");
    return {};
  }
  if (members.id == nullptr) {
    return Message(Message::Notification{std::move(*method), Take(members.params)});
  }
  auto id = TakeId(*members.id);
  if (!id) {
    return ParseFailure("Invalid id value in RPC request object");
  }
  return Message(Message::Request{std::move(*id), std::move(*method), Take(members.params)});
}

// A map with an error: the response to a request if it has an id, else an error of its own.
Message ErrorFromMembers(const Members& members) {
  auto [valid, error] = Message::Error::FromEncodable(std::move(*members.error));
  if (!valid || members.id == nullptr) {
    return Message::CreateError(std::move(error));
  }
  auto id = TakeId(*members.id);
  if (!id) {
    return ParseFailure("Invalid id value in RPC response object");
  }
  return Message::CreateError(std::move(*id), std::move(error));
}

Message ResultFromMembers(const Members& members) {
  auto id = members.id == nullptr ? std::nullopt : ReadId(*members.id);
  if (!id) {
    return ParseFailure("Invalid id value in RPC response object");
  }
  if (members.result == nullptr) {
    return ParseFailure("Invalid RPC message");
  }
  return Message::CreateResponse(std::move(*id), std::move(*members.result));
}

// Says what is wrong with the "code" member of an error; empty when nothing is.
std::string_view FindCodeFault(const cw::EncodableValue* code) {
  if (code == nullptr) {
    return "The Error object does not have a required code field.";
  }
  const auto number = code->AsInt64();
  if (!number) {
    return "The code field contains not integer number";
  }
  if (*number < std::numeric_limits<std::int32_t>::min() ||
      *number > std::numeric_limits<std::int32_t>::max()) {
    return "The code field contains a value out of the supported range";
  }
  return {};
}

// Says what is wrong with the "message" member of an error; empty when nothing is.
std::string_view FindTextFault(const cw::EncodableValue* text) {
  if (text == nullptr) {
    return "The Error object does not have a required messsage field.";
  }
  return text->AsString() == nullptr ? "The message field contains not string value" : "";
}

std::pair<bool, Message::Error> ErrorFailure(std::string_view text) {
  return {false, Message::Error(Message::kParseError, std::string(text))};
}

}  // namespace

Message MakeMessage(const Members& members) {
  if (!HasVersion(members)) {
    return MakeUnreadable();
  }
  if (members.method != nullptr) {
    return CallFromMembers(members);
  }
  return members.error != nullptr ? ErrorFromMembers(members) : ResultFromMembers(members);
}

Message MakeUnreadable() { return ParseFailure("Emply or invalid RPC message"); }

}  // namespace details

std::optional<Message::ID> Message::ID::FromEncodable(const cw::EncodableValue& value) {
  const cw::EncodableValue* const member = value.Find("id");
  return details::ReadId(member == nullptr ? value : *member);
}

std::pair<bool, Message::Error> Message::Error::FromEncodable(const cw::EncodableValue& value) {
  return FromEncodable(cw::EncodableValue(value));
}

std::pair<bool, Message::Error> Message::Error::FromEncodable(cw::EncodableValue&& value) {
  auto* const map = std::get_if<cw::EncodableMap>(&value);
  if (map == nullptr) {
    return details::ErrorFailure(
        "The Response Object MUST contain the error member with a value that is a Object");
  }
  const auto [code, data, text] = details::FindMembers<3>(*map, {"code", "data", "message"});
  if (const auto fault = details::FindCodeFault(code); !fault.empty()) {
    return details::ErrorFailure(fault);
  }
  if (const auto fault = details::FindTextFault(text); !fault.empty()) {
    return details::ErrorFailure(fault);
  }
  return {true, Error(static_cast<std::int32_t>(*code->AsInt64()),
                      std::move(*std::get_if<std::string>(text)), details::Take(data))};
}

Message Message::FromEncodable(const cw::EncodableValue& value) {
  return FromEncodable(cw::EncodableValue(value));
}

Message Message::FromEncodable(cw::EncodableValue&& value) {
  auto* const map = std::get_if<cw::EncodableMap>(&value);
  return map == nullptr ? details::MakeUnreadable()
                        : details::MakeMessage(details::FindMembers(*map));
}

}  // namespace vorpc

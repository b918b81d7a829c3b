// How a message is written: as a map of values, or straight into its text.
#include <cw/internal/base64_streams.h>
#include <cw/internal/size_estimate.h>
#include <cw/standard_codec.h>
#include <quarn/internal/text_room.h>
#include <quarn/logger.h>
#include <vorpc/internal/outgoing_text.h>

#include <utility>

#include "message_members.h"

namespace vorpc {
namespace {

// Collects the members of a message in a map of values.
class TreeMap {
 public:
  explicit TreeMap(std::size_t /*size*/) {}

  void Add(std::string_view key, const cw::EncodableValue& value) { map_.emplace(key, value); }
  void AddText(std::string_view key, std::string_view text) { map_.emplace(key, text); }
  template <class Content>
  void AddMap(std::string_view key, std::size_t size, const Content& content) {
    TreeMap nested(size);
    AddMembers(nested, content);
    map_.emplace(key, std::move(nested.map_));
  }

  cw::EncodableValue Take() { return std::move(map_); }

 private:
  cw::EncodableMap map_;
};

// Writes the members of a message straight into its text, so that the payload is copied once.
class StreamMap {
 public:
  StreamMap(std::size_t size, cw::ByteStreamWriter* stream)
      : stream_(stream), writer_(size, &cw::StandardCodecSerializer::GetInstance(), stream) {}

  void Add(std::string_view key, const cw::EncodableValue& value) { writer_.Add(key, value); }
  void AddText(std::string_view key, std::string_view text) { writer_.AddString(key, text); }
  template <class Content>
  void AddMap(std::string_view key, std::size_t size, const Content& content) {
    writer_.AddKey(key);
    StreamMap nested(size, stream_);
    AddMembers(nested, content);
  }

 private:
  cw::ByteStreamWriter* stream_;
  cw::MapWriter writer_;
};

// An error as the member of a message.
struct ErrorMember {
  const Message::Error& error;
};

std::size_t CountMembers(const Message::Request& request) {
  return request.params.IsNull() ? 3 : 4;
}
std::size_t CountMembers(const Message::Response& /*response*/) { return 3; }
std::size_t CountMembers(const Message::Notification& notification) {
  return notification.params.IsNull() ? 2 : 3;
}
std::size_t CountMembers(const Message::Error& /*error*/) { return 2; }
std::size_t CountMembers(const ErrorMember& member) { return member.error.data.IsNull() ? 2 : 3; }

// The members of each kind of message, in the order of their keys: the bytes of a StreamMap are
// then those of the map that a TreeMap gives.
template <class Map>
void AddMembers(Map& map, const ErrorMember& member) {
  map.Add("code", cw::EncodableValue(member.error.code));
  if (!member.error.data.IsNull()) {
    map.Add("data", member.error.data);
  }
  map.AddText("message", member.error.message);
}

template <class Map>
void AddError(Map& map, const Message::Error& error) {
  const ErrorMember member{error};
  map.AddMap("error", CountMembers(member), member);
}

template <class Map>
void AddParams(Map& map, const cw::EncodableValue& params) {
  if (!params.IsNull()) {
    map.Add("params", params);
  }
}

template <class Map>
void AddMembers(Map& map, const Message::Request& request) {
  map.AddText("id", request.id.value);
  map.AddText("jsonrpc", details::kVersion);
  map.AddText("method", request.method);
  AddParams(map, request.params);
}

template <class Map>
void AddMembers(Map& map, const Message::Response& response) {
  if (response.IsError()) {
    AddError(map, *response.GetError());
  }
  map.AddText("id", response.id.value);
  map.AddText("jsonrpc", details::kVersion);
  if (response.HasResult()) {
    map.Add("result", *response.GetResult());
  }
}

template <class Map>
void AddMembers(Map& map, const Message::Notification& notification) {
  map.AddText("jsonrpc", details::kVersion);
  map.AddText("method", notification.method);
  AddParams(map, notification.params);
}

template <class Map>
void AddMembers(Map& map, const Message::Error& error) {
  AddError(map, error);
  map.AddText("jsonrpc", details::kVersion);
}

// False, after an error line, for what has no encoding but null.
bool IsEncodable(std::monostate /*empty*/) {
  QUARN_LOG_ERROR() << "Invalid Json-RPC message";
  return false;
}

// An exception while its outcome was assigned can leave a response without one.
bool IsEncodable(const Message::Response& response) {
  if (response.HasResult() || response.IsError()) {
    return true;
  }
  QUARN_LOG_ERROR() << "Invalid RPC message";
  return false;
}

template <class Content>
bool IsEncodable(const Content& /*content*/) {
  return true;
}

// The bytes to reserve for a message with this payload.
std::size_t EstimateSize(const cw::EncodableValue& payload) {
  constexpr std::size_t kEnvelope = 128;  // keys, version, id, method, sizes
  return kEnvelope + cw::EstimateEncodedSize(payload);
}

std::size_t EstimateSize(const Message::Request& request) { return EstimateSize(request.params); }
std::size_t EstimateSize(const Message::Response& response) {
  return response.HasResult() ? EstimateSize(*response.GetResult())
                              : EstimateSize(response.GetError()->data);
}
std::size_t EstimateSize(const Message::Notification& notification) {
  return EstimateSize(notification.params);
}
std::size_t EstimateSize(const Message::Error& error) { return EstimateSize(error.data); }

cw::EncodableValue EncodeTree(std::monostate /*empty*/) { return {}; }

template <class Content>
cw::EncodableValue EncodeTree(const Content& content) {
  TreeMap map(CountMembers(content));
  AddMembers(map, content);
  return map.Take();
}

// Whose memory the text of a large message takes.
enum class Room { kNew, kKept };

std::string EncodeText(std::monostate /*empty*/, Room /*room*/) {
  return cw::EncodableValue().Serialize().ToBase64();
}

template <class Content>
std::string EncodeText(const Content& content, Room room) {
  cw::Base64StreamWriter stream;
  const std::size_t size = EstimateSize(content);
  if (room == Room::kKept && size >= quarn::TextRoom::kLarge) {
    stream.GetEncoder().UseRoom(quarn::TextRoom::Get().Take());
  }
  stream.GetEncoder().Expect(size);
  StreamMap map(CountMembers(content), &stream);
  AddMembers(map, content);
  return stream.GetEncoder().Finish();
}

std::string EncodeContent(const Message::Content& content, Room room) {
  return std::visit(
      [room](const auto& kind) {
        return IsEncodable(kind) ? EncodeText(kind, room) : EncodeText(std::monostate(), room);
      },
      content);
}

}  // namespace

cw::EncodableValue Message::Error::ToEncodable() const { return EncodeTree(ErrorMember{*this}); }

cw::EncodableValue Message::ToEncodable() const {
  return std::visit(
      [](const auto& content) {
        return IsEncodable(content) ? EncodeTree(content) : EncodeTree(std::monostate());
      },
      content_);
}

std::string Message::ToBase64() const { return EncodeContent(content_, Room::kNew); }

OutgoingText::OutgoingText(const Message& message)
    : text_(EncodeContent(message.content_, Room::kKept)) {}

OutgoingText::~OutgoingText() { quarn::TextRoom::Get().Give(std::move(text_)); }

}  // namespace vorpc

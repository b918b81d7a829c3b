#include <cw/internal/base64_streams.h>
#include <cw/internal/size_estimate.h>
#include <cw/internal/whole_message.h>
#include <cw/standard_codec.h>
#include <quarn/internal/base64.h>
#include <quarn/logger.h>
#include <vorpc/message.h>
#include <vorpc/message_text.h>

#include <algorithm>
#include <array>
#include <exception>
#include <limits>
#include <new>
#include <ostream>
#include <stdexcept>

namespace vorpc {

namespace {

constexpr std::string_view kVersion = "2.0";

Message ParseFailure(std::string_view text) {
  return Message::CreateError(Message::kParseError, text);
}

std::pair<bool, Message::Error> ErrorFailure(std::string_view text) {
  return {false, Message::Error(Message::kParseError, std::string(text))};
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

// What a message may be made of. Null where a member is missing.
struct Members {
  cw::EncodableValue* error;
  cw::EncodableValue* id;
  cw::EncodableValue* version;
  cw::EncodableValue* method;
  cw::EncodableValue* params;
  cw::EncodableValue* result;
};

Members FindMembers(cw::EncodableMap& map) {
  const auto [error, id, version, method, params, result] =
      FindMembers<6>(map, {"error", "id", "jsonrpc", "method", "params", "result"});
  return {error, id, version, method, params, result};
}

// The members of a message that is read from its bytes, without the map that they come in.
class MemberReader {
 public:
  // False when what comes next in the stream is no map.
  template <class Stream>
  bool Read(Stream* stream) {
    for (cw::WantedEntry& entry : entries_) {
      entry.value.reset();
    }
    return cw::ReadMapEntries(entries_.data(), entries_.size(), stream);
  }

  Members GetMembers() { return {Get(0), Get(1), Get(2), Get(3), Get(4), Get(5)}; }

 private:
  cw::EncodableValue* Get(std::size_t entry) {
    auto& value = entries_[entry].value;
    return value ? &*value : nullptr;
  }

  std::array<cw::WantedEntry, 6> entries_{{{"error", std::nullopt},
                                           {"id", std::nullopt},
                                           {"jsonrpc", std::nullopt},
                                           {"method", std::nullopt},
                                           {"params", std::nullopt},
                                           {"result", std::nullopt}}};
};

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

Message NoMessage() { return ParseFailure("Emply or invalid RPC message"); }

// As Message::FromEncodable, of a map with these members.
Message FromMembers(const Members& members) {
  if (!HasVersion(members)) {
    return NoMessage();
  }
  if (members.method != nullptr) {
    return CallFromMembers(members);
  }
  return members.error != nullptr ? ErrorFromMembers(members) : ResultFromMembers(members);
}

// As Message::FromEncodable of the value that the bytes hold.
Message FromBytes(const std::uint8_t* data, std::size_t size) {
  MemberReader reader;
  try {
    if (!cw::internal::ReadWholeMessage(data, size, [&reader](cw::ByteBufferStreamReader* stream) {
          return reader.Read(stream);
        })) {
      return NoMessage();
    }
  } catch (const std::length_error&) {  // GCOVR_EXCL_BR_LINE: nothing but these two is thrown.
    // Beyond the codec's bounds.
    return NoMessage();
  } catch (const std::bad_alloc&) {
    return NoMessage();
  }
  return FromMembers(reader.GetMembers());
}

// Texts up to here are decoded on the stack.
constexpr std::size_t kSmallText = 2048;
// Texts above are decoded as they are read: their bytes as a whole would be a second large block
// of memory, and its pages cost more than what they hold.
constexpr std::size_t kMediumText = 65536;

Message FromSmallText(std::string_view text) {
  alignas(std::uint64_t) std::array<std::uint8_t, kSmallText / 4 * 3> bytes;
  const auto size = quarn::base64::DecodedSize(text.data(), text.size());
  if (!size || !quarn::base64::Decode(text.data(), text.size(), bytes.data())) {
    return NoMessage();
  }
  return FromBytes(bytes.data(), *size);
}

Message FromMediumText(std::string_view text) {
  const auto bytes = quarn::base64::DecodeToBytes(text.data(), text.size());
  return bytes ? FromBytes(bytes->data(), bytes->size()) : NoMessage();
}

// The same without the bytes as a whole. None, with nothing reported, for a text with any fault.
std::optional<Message> FromFlawlessText(std::string_view text) {
  if (!quarn::base64::DecodedSize(text.data(), text.size())) {
    return std::nullopt;
  }
  MemberReader reader;
  try {
    cw::Base64StreamReader stream(text);
    if (!reader.Read(&stream)) {
      return std::nullopt;
    }
    stream.CheckRest();
  } catch (const std::exception&) {  // GCOVR_EXCL_BR_LINE: nothing else is thrown.
    return std::nullopt;
  }
  return FromMembers(reader.GetMembers());
}

Message FromText(std::string_view text) {
  if (text.size() <= kSmallText) {
    return FromSmallText(text);
  }
  auto message = text.size() > kMediumText ? FromFlawlessText(text) : std::nullopt;
  return message ? *std::move(message) : FromMediumText(text);
}

// What is wrong with the "code" member of an error, or nothing.
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

// What is wrong with the "message" member of an error, or nothing.
std::string_view FindTextFault(const cw::EncodableValue* text) {
  if (text == nullptr) {
    return "The Error object does not have a required messsage field.";
  }
  return text->AsString() == nullptr ? "The message field contains not string value" : "";
}

// Collects the members of a message in a map of values.
class TreeMap {
 public:
  explicit TreeMap(std::size_t /*size*/) {}

  void Add(std::string_view key, const cw::EncodableValue& value) { map_.emplace(key, value); }
  void AddText(std::string_view key, std::string_view text) { map_.emplace(key, text); }
  template <class Content>
  void AddMap(std::string_view key, std::size_t size, const Content& content) {
    TreeMap nested(size);
    Fill(nested, content);
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
    Fill(nested, content);
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
void Fill(Map& map, const ErrorMember& member) {
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
void Fill(Map& map, const Message::Request& request) {
  map.AddText("id", request.id.value);
  map.AddText("jsonrpc", kVersion);
  map.AddText("method", request.method);
  AddParams(map, request.params);
}

template <class Map>
void Fill(Map& map, const Message::Response& response) {
  if (response.IsError()) {
    AddError(map, *response.GetError());
  }
  map.AddText("id", response.id.value);
  map.AddText("jsonrpc", kVersion);
  if (response.HasResult()) {
    map.Add("result", *response.GetResult());
  }
}

template <class Map>
void Fill(Map& map, const Message::Notification& notification) {
  map.AddText("jsonrpc", kVersion);
  map.AddText("method", notification.method);
  AddParams(map, notification.params);
}

template <class Map>
void Fill(Map& map, const Message::Error& error) {
  AddError(map, error);
  map.AddText("jsonrpc", kVersion);
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
  Fill(map, content);
  return map.Take();
}

std::string EncodeText(std::monostate /*empty*/) {
  return cw::EncodableValue().Serialize().ToBase64();
}

template <class Content>
std::string EncodeText(const Content& content) {
  cw::Base64StreamWriter stream;
  stream.GetEncoder().Expect(EstimateSize(content));
  StreamMap map(CountMembers(content), &stream);
  Fill(map, content);
  return stream.GetEncoder().Finish();
}

// A text that came from outside: quoted, escaped and clipped as the text of a value is.
cw::EncodableValue Quote(const std::string& text) { return cw::EncodableValue(text); }

void Print(std::ostream& stream, std::monostate /*empty*/) { stream << "empty message"; }

void Print(std::ostream& stream, const Message::Request& request) {
  stream << "request " << request.id << ": " << Quote(request.method) << '(' << request.params
         << ')';
}

void Print(std::ostream& stream, const Message::Response& response) {
  stream << "response " << response.id << ": ";
  if (response.IsError()) {
    stream << *response.GetError();
  } else if (response.HasResult()) {
    stream << *response.GetResult();
  } else {
    stream << "no outcome";
  }
}

void Print(std::ostream& stream, const Message::Notification& notification) {
  stream << "notification " << Quote(notification.method) << '(' << notification.params << ')';
}

void Print(std::ostream& stream, const Message::Error& error) { stream << error; }

}  // namespace

std::optional<Message::ID> Message::ID::FromEncodable(const cw::EncodableValue& value) {
  const cw::EncodableValue* const member = value.Find("id");
  return ReadId(member == nullptr ? value : *member);
}

cw::EncodableValue Message::Error::ToEncodable() const { return EncodeTree(ErrorMember{*this}); }

std::pair<bool, Message::Error> Message::Error::FromEncodable(const cw::EncodableValue& value) {
  return FromEncodable(cw::EncodableValue(value));
}

std::pair<bool, Message::Error> Message::Error::FromEncodable(cw::EncodableValue&& value) {
  auto* const map = std::get_if<cw::EncodableMap>(&value);
  if (map == nullptr) {
    return ErrorFailure(
        "The Response Object MUST contain the error member with a value that is a Object");
  }
  const auto [code, data, text] = FindMembers<3>(*map, {"code", "data", "message"});
  if (const auto fault = FindCodeFault(code); !fault.empty()) {
    return ErrorFailure(fault);
  }
  if (const auto fault = FindTextFault(text); !fault.empty()) {
    return ErrorFailure(fault);
  }
  return {true, Error(static_cast<std::int32_t>(*code->AsInt64()),
                      std::move(*std::get_if<std::string>(text)), Take(data))};
}

Message Message::CreateRequest(ID id, std::string_view method, cw::EncodableValue params) {
  return Message(Request{std::move(id), std::string(method), std::move(params)});
}

Message Message::CreateResponse(ID id, cw::EncodableValue result) {
  return Message(Response(std::move(id), std::move(result)));
}

Message Message::CreateNotification(std::string_view method, cw::EncodableValue params) {
  return Message(Notification{std::string(method), std::move(params)});
}

Message Message::CreateError(std::int32_t code, std::string_view message, cw::EncodableValue data) {
  return CreateError(Error(code, std::string(message), std::move(data)));
}

Message Message::CreateError(Error error) { return Message(std::move(error)); }

Message Message::CreateError(ID id, std::int32_t code, std::string_view message,
                             cw::EncodableValue data) {
  return CreateError(std::move(id), Error(code, std::string(message), std::move(data)));
}

Message Message::CreateError(ID id, Error error) {
  return Message(Response(std::move(id), std::move(error)));
}

bool Message::IsRequest(std::string_view method) const {
  const Request* const request = GetRequest();
  return request != nullptr && request->method == method;
}

bool Message::IsResponseForThis(const Message& other) const {
  const Request* const request = GetRequest();
  const Response* const response = other.GetResponse();
  return request != nullptr && response != nullptr && request->id == response->id;
}

cw::EncodableValue Message::ToEncodable() const {
  return std::visit(
      [](const auto& content) {
        return IsEncodable(content) ? EncodeTree(content) : EncodeTree(std::monostate());
      },
      content_);
}

Message Message::FromEncodable(const cw::EncodableValue& value) {
  return FromEncodable(cw::EncodableValue(value));
}

Message Message::FromEncodable(cw::EncodableValue&& value) {
  auto* const map = std::get_if<cw::EncodableMap>(&value);
  return map == nullptr ? NoMessage() : FromMembers(FindMembers(*map));
}

std::string Message::ToBase64() const {
  return std::visit(
      [](const auto& content) {
        return IsEncodable(content) ? EncodeText(content) : EncodeText(std::monostate());
      },
      content_);
}

Message Message::FromBase64(const std::string& text) { return MessageFromText(text); }

Message MessageFromText(std::string_view text) { return text.empty() ? Message() : FromText(text); }

std::ostream& operator<<(std::ostream& stream, const Message& message) {
  std::visit([&stream](const auto& content) { Print(stream, content); }, message.content_);
  return stream;
}

std::ostream& operator<<(std::ostream& stream, const Message::ID& id) {
  return stream << Quote(id.value);
}

std::ostream& operator<<(std::ostream& stream, const Message::Error& error) {
  // As values, so that the stream's number format does not matter either.
  stream << "error " << cw::EncodableValue(error.code) << ' ' << Quote(error.message);
  if (!error.data.IsNull()) {
    stream << ' ' << error.data;
  }
  return stream;
}

}  // namespace vorpc

// vorpc::Message: what travels over a JSON-RPC 2.0 connection.
//
//   const auto request = vorpc::Message::CreateRequest(vorpc::Message::ID(7), "add", params);
//   const std::string text = request.ToBase64();
//   const auto back = vorpc::Message::FromBase64(text);
//   if (const vorpc::Message::Request* got = back.GetRequest()) { ... }
#ifndef VORPC_MESSAGE_H
#define VORPC_MESSAGE_H

#include <cw/encodable_value.h>
#include <quarn/export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace vorpc {

class OutgoingText;

// A request, a response, a notification, an error of its own, or nothing. A plain value: copy and
// move it freely; a moved-from message keeps its type. Like a standard container, one message is
// not for several threads at once.
class TARV_EXPORT Message {
 public:
  // Names a request, and the response to it. Always text: the number 7 and "7" are one id.
  struct TARV_EXPORT ID {
    explicit ID(std::int64_t number) : value(std::to_string(number)) {}
    explicit ID(std::string_view text) : value(text) {}

    std::size_t GetHash() const { return std::hash<std::string>()(value); }

    // A string value, also for an id that was made of a number.
    cw::EncodableValue ToEncodable() const { return cw::EncodableValue(value); }
    // From a string that is not empty or an int32_t or int64_t; from a map, its "id" member is
    // taken instead. None for anything else.
    static std::optional<ID> FromEncodable(const cw::EncodableValue& value);

    friend bool operator==(const ID& a, const ID& b) { return a.value == b.value; }
    friend bool operator==(const ID& a, std::string_view b) { return a.value == b; }
    friend bool operator==(const ID& a, std::int64_t b) { return a.value == std::to_string(b); }
    friend bool operator!=(const ID& a, const ID& b) { return !(a == b); }
    friend bool operator!=(const ID& a, std::string_view b) { return !(a == b); }
    friend bool operator!=(const ID& a, std::int64_t b) { return !(a == b); }

    std::string value;
  };

  struct TARV_EXPORT Error {
    Error(std::int32_t error_code, std::string text) : code(error_code), message(std::move(text)) {}
    Error(std::int32_t error_code, std::string text, cw::EncodableValue details)
        : code(error_code), message(std::move(text)), data(std::move(details)) {}

    // A map of "code", "message" and, unless it is null, "data".
    cw::EncodableValue ToEncodable() const;
    // True and the error that the map describes; or false and an error with kParseError that says
    // what is wrong with `value`. The second form moves the texts and the data out of it.
    static std::pair<bool, Error> FromEncodable(const cw::EncodableValue& value);
    static std::pair<bool, Error> FromEncodable(cw::EncodableValue&& value);

    friend bool operator==(const Error& a, const Error& b) {
      return a.code == b.code && a.message == b.message && a.data == b.data;
    }
    friend bool operator!=(const Error& a, const Error& b) { return !(a == b); }

    std::int32_t code;
    std::string message;
    cw::EncodableValue data;  // null when there is none
  };

  struct Request {
    friend bool operator==(const Request& a, const Request& b) {
      return a.id == b.id && a.method == b.method && a.params == b.params;
    }
    friend bool operator!=(const Request& a, const Request& b) { return !(a == b); }

    ID id;
    std::string method;
    cw::EncodableValue params;  // null when there are none
  };

  struct Response {
    Response(ID request_id, cw::EncodableValue result)
        : id(std::move(request_id)), outcome(std::in_place_index<0>, std::move(result)) {}
    Response(ID request_id, Error error)
        : id(std::move(request_id)), outcome(std::in_place_index<1>, std::move(error)) {}

    // Pointers are valid until the response changes or dies, and null when the outcome is another.
    bool HasResult() const { return outcome.index() == 0; }
    const cw::EncodableValue* GetResult() const { return std::get_if<0>(&outcome); }
    const cw::EncodableMap* GetMapResult() const {
      return std::get_if<cw::EncodableMap>(GetResult());
    }
    bool IsError() const { return outcome.index() == 1; }
    const Error* GetError() const { return std::get_if<1>(&outcome); }

    friend bool operator==(const Response& a, const Response& b) {
      return a.id == b.id && a.outcome == b.outcome;
    }
    friend bool operator!=(const Response& a, const Response& b) { return !(a == b); }

    ID id;
    std::variant<cw::EncodableValue, Error> outcome;
  };

  struct Notification {
    friend bool operator==(const Notification& a, const Notification& b) {
      return a.method == b.method && a.params == b.params;
    }
    friend bool operator!=(const Notification& a, const Notification& b) { return !(a == b); }

    std::string method;
    cw::EncodableValue params;  // null when there are none
  };

  enum class Type : std::int32_t {
    Empty = 0,
    Request = 1,
    Response = 2,
    Notification = 3,
    Error = 4,  // an error that belongs to no request; a response that carries one is a Response
  };

  // Codes that the layer itself gives to errors, as JSON-RPC 2.0 defines them.
  static constexpr std::int32_t kParseError = -32700;
  static constexpr std::int32_t kUnknownMethod = -32601;
  static constexpr std::int32_t kInternalError = -32603;

  // The content of a message. A type's number is its position here.
  using Content = std::variant<std::monostate, Request, Response, Notification, Error>;

  // The empty message.
  Message() = default;
  explicit Message(Content content) : content_(std::move(content)) {}

  static Message CreateRequest(ID id, std::string_view method, cw::EncodableValue params);
  static Message CreateResponse(ID id, cw::EncodableValue result);
  static Message CreateNotification(std::string_view method, cw::EncodableValue params);
  // An error that belongs to no request.
  static Message CreateError(std::int32_t code, std::string_view message,
                             cw::EncodableValue data = {});
  static Message CreateError(Error error);
  // A response that carries the error.
  static Message CreateError(ID id, std::int32_t code, std::string_view message,
                             cw::EncodableValue data = {});
  static Message CreateError(ID id, Error error);

  Type GetType() const { return static_cast<Type>(content_.index()); }
  bool IsEmpty() const { return GetType() == Type::Empty; }
  // True for an error that belongs to no request.
  bool IsError() const { return GetType() == Type::Error; }
  bool IsRequest(std::string_view method) const;
  // True when this is a request and `other` the response to it.
  bool IsResponseForThis(const Message& other) const;

  // Null when the message is of another type. Valid until the message changes or dies.
  const Request* GetRequest() const { return std::get_if<Request>(&content_); }
  const Response* GetResponse() const { return std::get_if<Response>(&content_); }
  const Notification* GetNotification() const { return std::get_if<Notification>(&content_); }
  const Error* GetError() const { return std::get_if<Error>(&content_); }

  // The message as a JSON-RPC map. Null, after an error line, for an empty message.
  cw::EncodableValue ToEncodable() const;
  // Never fails: what is no valid message gives an error of its own with kParseError that says why,
  // or, after an error line, the empty message when the method's name is missing. The second form
  // moves the payload out of `value`.
  static Message FromEncodable(const cw::EncodableValue& value);
  static Message FromEncodable(cw::EncodableValue&& value);

  // The text that travels: the bytes of ToEncodable() in Base64. Throws std::length_error for a
  // payload that nests deeper than the codec allows; one that holds a CustomEncodableValue stops
  // the process.
  std::string ToBase64() const;
  // Never fails: the empty message for an empty text, otherwise as FromEncodable.
  static Message FromBase64(const std::string& text);

 private:
  friend class OutgoingText;

  friend bool operator==(const Message& a, const Message& b) { return a.content_ == b.content_; }
  friend bool operator!=(const Message& a, const Message& b) { return !(a == b); }

  // One line for logs and test failures, whatever the message holds: its texts and its payload look
  // as values do, escaped and clipped.
  TARV_EXPORT friend std::ostream& operator<<(std::ostream& stream, const Message& message);

  Content content_;
};

TARV_EXPORT std::ostream& operator<<(std::ostream& stream, const Message& message);
// One line as well.
TARV_EXPORT std::ostream& operator<<(std::ostream& stream, const Message::ID& id);
TARV_EXPORT std::ostream& operator<<(std::ostream& stream, const Message::Error& error);

}  // namespace vorpc

template <>
struct std::hash<vorpc::Message::ID> {
  std::size_t operator()(const vorpc::Message::ID& id) const { return id.GetHash(); }
};

#endif  // VORPC_MESSAGE_H

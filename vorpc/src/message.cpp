// The value itself: how messages are made, told apart and printed.
#include <quarn/escaped.h>
#include <vorpc/message.h>

#include <ostream>

namespace vorpc {

namespace {

// A text as a value prints it: quoted, escaped and clipped.
cw::EncodableValue Quote(const std::string& text) { return cw::EncodableValue(text); }

// The same, never clipped.
void PrintWhole(std::ostream& stream, std::string_view text) {
  stream << '"';
  std::size_t end = text.find_first_of("\"\\");
  while (end != std::string_view::npos) {
    stream << quarn::Escaped{text.substr(0, end)} << '\\' << text[end];
    text.remove_prefix(end + 1);
    end = text.find_first_of("\"\\");
  }
  stream << quarn::Escaped{text} << '"';
}

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

std::ostream& operator<<(std::ostream& stream, const Message& message) {
  std::visit([&stream](const auto& content) { Print(stream, content); }, message.content_);
  return stream;
}

std::ostream& operator<<(std::ostream& stream, const Message::ID& id) {
  return stream << Quote(id.value);
}

std::ostream& operator<<(std::ostream& stream, const Message::Error& error) {
  // The code as a value, so that the stream's number format does not matter.
  stream << "error " << cw::EncodableValue(error.code) << ' ';
  PrintWhole(stream, error.message);
  if (!error.data.IsNull()) {
    stream << ' ' << error.data;
  }
  return stream;
}

}  // namespace vorpc

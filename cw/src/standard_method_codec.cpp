#include <cw/internal/diagnostics.h>
#include <cw/internal/whole_message.h>
#include <cw/method_codec.h>

#include <utility>

#include "codec_registry.h"

namespace cw {

namespace {

constexpr std::uint8_t kSuccess = 0;
constexpr std::uint8_t kError = 1;

void WriteOptional(const EncodableValue* value, const StandardCodecSerializer& serializer,
                   ByteStreamWriter* stream) {
  if (value == nullptr) {
    serializer.WriteValue(EncodableValue(), stream);
  } else {
    serializer.WriteValue(*value, stream);
  }
}

void ReportSuccess(const EncodableValue& value, MethodResult<EncodableValue>* result) {
  if (value.IsNull()) {
    result->Success();
  } else {
    result->Success(value);
  }
}

// The values of a reply, behind the byte that says what it is.
struct Reply {
  std::uint8_t kind;
  EncodableValue value;  // the result, or the error's code
  EncodableValue message;
  EncodableValue details;
};

Reply ReadReply(const StandardCodecSerializer& serializer, ByteBufferStreamReader* stream) {
  Reply reply{stream->ReadByte(), {}, {}, {}};
  if (reply.kind == kSuccess || reply.kind == kError) {
    reply.value = serializer.ReadValue(stream);
  }
  if (reply.kind == kError) {
    reply.message = serializer.ReadValue(stream);
    reply.details = serializer.ReadValue(stream);
  }
  return reply;
}

// False, with nothing called, when the code is no text, or the message neither text nor null.
bool ReportError(const Reply& reply, MethodResult<EncodableValue>* result) {
  const std::string* const code = reply.value.AsString();
  const std::string* const message = reply.message.AsString();
  if (code == nullptr || (message == nullptr && !reply.message.IsNull())) {
    return false;
  }
  const std::string text = message == nullptr ? std::string() : *message;
  if (reply.details.IsNull()) {
    result->Error(*code, text);
  } else {
    result->Error(*code, text, reply.details);
  }
  return true;
}

struct NameAndArguments {
  EncodableValue name;
  std::unique_ptr<EncodableValue> arguments;  // not read when the name is no text
};

NameAndArguments ReadCall(const StandardCodecSerializer& serializer,
                          ByteBufferStreamReader* stream) {
  NameAndArguments call{serializer.ReadValue(stream), nullptr};
  if (call.name.AsString() != nullptr) {
    call.arguments = std::make_unique<EncodableValue>(serializer.ReadValue(stream));
  }
  return call;
}

}  // namespace

const StandardMethodCodec& StandardMethodCodec::GetInstance(
    const StandardCodecSerializer* serializer) {
  // Never destroyed: other objects may still encode while the process exits.
  static auto* const registry = new internal::CodecRegistry<StandardMethodCodec>;
  return registry->Get(serializer, [](const StandardCodecSerializer* key) {
    return std::unique_ptr<const StandardMethodCodec>(new StandardMethodCodec(key));
  });
}

std::unique_ptr<MethodCall<EncodableValue>> StandardMethodCodec::DecodeMethodCallInternal(
    const std::uint8_t* message, std::size_t size) const {
  auto [name, arguments] = internal::ReadWholeMessage(
      message, size,
      [this](ByteBufferStreamReader* stream) { return ReadCall(*serializer_, stream); });
  auto* const text = std::get_if<std::string>(&name);
  if (text == nullptr) {
    internal::WriteDiagnostic("Invalid method call; method name is not a string.\n");
    return nullptr;
  }
  return std::make_unique<MethodCall<EncodableValue>>(std::move(*text), std::move(arguments));
}

quarn::Buffer StandardMethodCodec::EncodeMethodCallInternal(
    const MethodCall<EncodableValue>& call) const {
  quarn::Buffer buffer;
  ByteBufferStreamWriter stream(&buffer);
  serializer_->WriteValue(call.GetMethodName(), &stream);
  WriteOptional(call.GetArguments(), *serializer_, &stream);
  return buffer;
}

quarn::Buffer StandardMethodCodec::EncodeSuccessEnvelopeInternal(
    const EncodableValue* result) const {
  quarn::Buffer buffer;
  ByteBufferStreamWriter stream(&buffer);
  stream.WriteByte(kSuccess);
  WriteOptional(result, *serializer_, &stream);
  return buffer;
}

quarn::Buffer StandardMethodCodec::EncodeErrorEnvelopeInternal(
    const std::string& code, const std::string& message, const EncodableValue* details) const {
  quarn::Buffer buffer;
  ByteBufferStreamWriter stream(&buffer);
  stream.WriteByte(kError);
  serializer_->WriteValue(code, &stream);
  if (message.empty()) {
    WriteOptional(nullptr, *serializer_, &stream);
  } else {
    serializer_->WriteValue(message, &stream);
  }
  WriteOptional(details, *serializer_, &stream);
  return buffer;
}

bool StandardMethodCodec::DecodeAndProcessResponseEnvelopeInternal(
    const std::uint8_t* response, std::size_t size, MethodResult<EncodableValue>* result) const {
  const Reply reply = internal::ReadWholeMessage(
      response, size,
      [this](ByteBufferStreamReader* stream) { return ReadReply(*serializer_, stream); });
  if (reply.kind == kSuccess) {
    ReportSuccess(reply.value, result);
    return true;
  }
  return reply.kind == kError && ReportError(reply, result);
}

}  // namespace cw

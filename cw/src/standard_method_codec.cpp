#include <cw/method_codec.h>

#include <iostream>
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

// False, with nothing called, when the code is no text, or the message neither text nor null.
bool ReportError(const EncodableValue& code, const EncodableValue& message,
                 const EncodableValue& details, MethodResult<EncodableValue>* result) {
  const std::string* code_text = code.AsString();
  const std::string* message_text = message.AsString();
  if (code_text == nullptr || (message_text == nullptr && !message.IsNull())) {
    return false;
  }
  std::string text;
  if (message_text != nullptr) {
    text = *message_text;
  }
  if (details.IsNull()) {
    result->Error(*code_text, text);
  } else {
    result->Error(*code_text, text, details);
  }
  return true;
}

}  // namespace

const StandardMethodCodec& StandardMethodCodec::GetInstance(
    const StandardCodecSerializer* serializer) {
  // Never destroyed: other objects may still encode while the process exits.
  // GCOVR_EXCL_BR_START: no test can arrange which of two threads makes it.
  static auto* const registry = new internal::CodecRegistry<StandardMethodCodec>;
  // GCOVR_EXCL_BR_STOP
  return registry->Get(serializer, [](const StandardCodecSerializer* key) {
    return std::unique_ptr<const StandardMethodCodec>(new StandardMethodCodec(key));
  });
}

std::unique_ptr<MethodCall<EncodableValue>> StandardMethodCodec::DecodeMethodCallInternal(
    const std::uint8_t* message, std::size_t size) const {
  ByteBufferStreamReader stream(message, size);
  EncodableValue name = serializer_->ReadValue(&stream);
  auto* name_text = std::get_if<std::string>(&name);
  if (name_text == nullptr) {
    std::cerr << "Invalid method call; method name is not a string.\n";
    return nullptr;
  }
  auto arguments = std::make_unique<EncodableValue>(serializer_->ReadValue(&stream));
  return std::make_unique<MethodCall<EncodableValue>>(std::move(*name_text), std::move(arguments));
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
  ByteBufferStreamReader stream(response, size);
  const std::uint8_t kind = stream.ReadByte();
  if (kind == kSuccess) {
    ReportSuccess(serializer_->ReadValue(&stream), result);
    return true;
  }
  if (kind != kError) {
    return false;
  }
  const EncodableValue code = serializer_->ReadValue(&stream);
  const EncodableValue message = serializer_->ReadValue(&stream);
  const EncodableValue details = serializer_->ReadValue(&stream);
  return ReportError(code, message, details, result);
}

}  // namespace cw

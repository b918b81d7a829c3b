#include <cw/internal/whole_message.h>
#include <cw/standard_message_codec.h>

#include "codec_registry.h"

namespace cw {

const StandardMessageCodec& StandardMessageCodec::GetInstance(
    const StandardCodecSerializer* serializer) {
  // Never destroyed: other objects may still encode while the process exits.
  static auto* const registry = new internal::CodecRegistry<StandardMessageCodec>;
  return registry->Get(serializer, [](const StandardCodecSerializer* key) {
    return std::unique_ptr<const StandardMessageCodec>(new StandardMessageCodec(key));
  });
}

std::unique_ptr<EncodableValue> StandardMessageCodec::DecodeMessageInternal(
    const std::uint8_t* data, std::size_t size) const {
  if (data == nullptr || size == 0) {
    return nullptr;
  }
  return internal::ReadWholeMessage(data, size, [this](ByteBufferStreamReader* stream) {
    return std::make_unique<EncodableValue>(serializer_->ReadValue(stream));
  });
}

quarn::Buffer StandardMessageCodec::EncodeMessageInternal(const EncodableValue& message) const {
  quarn::Buffer buffer;
  ByteBufferStreamWriter stream(&buffer);
  serializer_->WriteValue(message, &stream);
  return buffer;
}

}  // namespace cw

// cw::StandardMessageCodec: one value per message, in the standard format.
#ifndef CW_STANDARD_MESSAGE_CODEC_H
#define CW_STANDARD_MESSAGE_CODEC_H

#include <cw/encodable_value.h>
#include <cw/message_codec.h>
#include <cw/standard_codec.h>
#include <quarn/export.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace cw {

// Any thread. Decoding gives an empty pointer for no bytes, ignores what follows the first value,
// and throws std::length_error for input beyond codec_limits.h; encoding throws it for values that
// nest deeper than kMaxNesting.
class TARV_EXPORT StandardMessageCodec final : public MessageCodec<EncodableValue> {
 public:
  // The codec of `serializer`, made at the first request and kept as long as the process lives, so
  // the serializer must live as long too. Null means StandardCodecSerializer::GetInstance().
  static const StandardMessageCodec& GetInstance(
      const StandardCodecSerializer* serializer = nullptr);

 protected:
  std::unique_ptr<EncodableValue> DecodeMessageInternal(const std::uint8_t* data,
                                                        std::size_t size) const override;
  quarn::Buffer EncodeMessageInternal(const EncodableValue& message) const override;

 private:
  explicit StandardMessageCodec(const StandardCodecSerializer* serializer)
      : serializer_(serializer) {}

  const StandardCodecSerializer* serializer_;
};

}  // namespace cw

#endif  // CW_STANDARD_MESSAGE_CODEC_H

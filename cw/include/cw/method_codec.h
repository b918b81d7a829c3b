// cw::MethodCodec: turns method calls and their outcomes into bytes and back.
#ifndef CW_METHOD_CODEC_H
#define CW_METHOD_CODEC_H

#include <cw/encodable_value.h>
#include <cw/method_call.h>
#include <cw/method_result.h>
#include <cw/standard_codec.h>
#include <quarn/buffer.h>
#include <quarn/export.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace cw {

// Any thread, as long as the codec's own type says nothing else.
template <class T>
class TARV_EXPORT MethodCodec {
 public:
  MethodCodec() = default;
  MethodCodec(const MethodCodec&) = delete;
  MethodCodec& operator=(const MethodCodec&) = delete;
  virtual ~MethodCodec() = default;

  // The call in the bytes, or an empty pointer when they hold none.
  std::unique_ptr<MethodCall<T>> DecodeMethodCall(const std::uint8_t* message,
                                                  std::size_t size) const {
    return DecodeMethodCallInternal(message, size);
  }
  std::unique_ptr<MethodCall<T>> DecodeMethodCall(const quarn::Buffer& message) const {
    return DecodeMethodCallInternal(message.GetData(), message.GetSize());
  }

  quarn::Buffer EncodeMethodCall(const MethodCall<T>& call) const {
    return EncodeMethodCallInternal(call);
  }

  // The reply to a call that succeeded; null for no result.
  quarn::Buffer EncodeSuccessEnvelope(const T* result = nullptr) const {
    return EncodeSuccessEnvelopeInternal(result);
  }

  // The reply to a call that failed; an empty message and null details stand for none.
  quarn::Buffer EncodeErrorEnvelope(const std::string& code, const std::string& message = "",
                                    const T* details = nullptr) const {
    return EncodeErrorEnvelopeInternal(code, message, details);
  }

  // Decodes a reply and calls `result`'s Success or Error with it. False, with nothing called, when
  // the bytes are no such reply. A reply without bytes means "not implemented": look for it first.
  bool DecodeAndProcessResponseEnvelope(const std::uint8_t* response, std::size_t size,
                                        MethodResult<T>* result) const {
    return DecodeAndProcessResponseEnvelopeInternal(response, size, result);
  }

 protected:
  virtual std::unique_ptr<MethodCall<T>> DecodeMethodCallInternal(const std::uint8_t* message,
                                                                  std::size_t size) const = 0;
  virtual quarn::Buffer EncodeMethodCallInternal(const MethodCall<T>& call) const = 0;
  virtual quarn::Buffer EncodeSuccessEnvelopeInternal(const T* result) const = 0;
  virtual quarn::Buffer EncodeErrorEnvelopeInternal(const std::string& code,
                                                    const std::string& message,
                                                    const T* details) const = 0;
  virtual bool DecodeAndProcessResponseEnvelopeInternal(const std::uint8_t* response,
                                                        std::size_t size,
                                                        MethodResult<T>* result) const = 0;
};

// Method calls and outcomes in the standard format. Any thread. Decoding throws std::length_error
// for input beyond codec_limits.h, before anything is called; encoding throws it for values that
// nest deeper than kMaxNesting.
class TARV_EXPORT StandardMethodCodec final : public MethodCodec<EncodableValue> {
 public:
  // The codec of `serializer`, made at the first request and kept as long as the process lives, so
  // the serializer must live as long too. Null means StandardCodecSerializer::GetInstance().
  static const StandardMethodCodec& GetInstance(
      const StandardCodecSerializer* serializer = nullptr);

 protected:
  std::unique_ptr<MethodCall<EncodableValue>> DecodeMethodCallInternal(
      const std::uint8_t* message, std::size_t size) const override;
  quarn::Buffer EncodeMethodCallInternal(const MethodCall<EncodableValue>& call) const override;
  quarn::Buffer EncodeSuccessEnvelopeInternal(const EncodableValue* result) const override;
  quarn::Buffer EncodeErrorEnvelopeInternal(const std::string& code, const std::string& message,
                                            const EncodableValue* details) const override;
  bool DecodeAndProcessResponseEnvelopeInternal(
      const std::uint8_t* response, std::size_t size,
      MethodResult<EncodableValue>* result) const override;

 private:
  explicit StandardMethodCodec(const StandardCodecSerializer* serializer)
      : serializer_(serializer) {}

  const StandardCodecSerializer* serializer_;
};

}  // namespace cw

#endif  // CW_METHOD_CODEC_H

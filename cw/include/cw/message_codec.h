// cw::MessageCodec: turns messages of one type into bytes and back.
#ifndef CW_MESSAGE_CODEC_H
#define CW_MESSAGE_CODEC_H

#include <quarn/buffer.h>
#include <quarn/export.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace cw {

// Any thread, as long as the codec's own type says nothing else.
template <class T>
class TARV_EXPORT MessageCodec {
 public:
  MessageCodec() = default;
  MessageCodec(const MessageCodec&) = delete;
  MessageCodec& operator=(const MessageCodec&) = delete;
  virtual ~MessageCodec() = default;

  // The message in the bytes, or an empty pointer when there is none.
  std::unique_ptr<T> DecodeMessage(const std::uint8_t* data, std::size_t size) const {
    return DecodeMessageInternal(data, size);
  }
  std::unique_ptr<T> DecodeMessage(const quarn::Buffer& buffer) const {
    return DecodeMessageInternal(buffer.GetData(), buffer.GetSize());
  }

  quarn::Buffer EncodeMessage(const T& message) const { return EncodeMessageInternal(message); }

 protected:
  virtual std::unique_ptr<T> DecodeMessageInternal(const std::uint8_t* data,
                                                   std::size_t size) const = 0;
  virtual quarn::Buffer EncodeMessageInternal(const T& message) const = 0;
};

}  // namespace cw

#endif  // CW_MESSAGE_CODEC_H

// One shared codec per serializer.
#ifndef CW_SRC_CODEC_REGISTRY_H
#define CW_SRC_CODEC_REGISTRY_H

#include <cw/standard_codec.h>

#include <map>
#include <memory>
#include <mutex>

namespace cw::internal {

// Codecs by their serializer, made when they are first asked for and never removed. Any thread.
template <class Codec>
class CodecRegistry {
 public:
  // `make` gives an owned codec for a serializer.
  template <class Make>
  const Codec& Get(const StandardCodecSerializer* serializer, const Make& make) {
    if (serializer == nullptr) {
      serializer = &StandardCodecSerializer::GetInstance();
    }
    const std::lock_guard lock(mutex_);
    std::unique_ptr<const Codec>& codec = codecs_[serializer];
    if (!codec) {
      codec = make(serializer);
    }
    return *codec;
  }

 private:
  std::mutex mutex_;
  std::map<const StandardCodecSerializer*, std::unique_ptr<const Codec>> codecs_;
};

}  // namespace cw::internal

#endif  // CW_SRC_CODEC_REGISTRY_H

// Values in the bytes that Dart writes.
#ifndef VELTRA_HOST_SRC_DART_SERIALIZER_H
#define VELTRA_HOST_SRC_DART_SERIALIZER_H

#include <cw/standard_codec.h>

namespace veltra::host {

// Writes values as Dart does, which pads an empty typed list like any other. Has no state.
class DartSerializer final : public cw::StandardCodecSerializer {
 public:
  // Lives as long as the process.
  static const DartSerializer& GetInstance();

  void WriteValue(const cw::EncodableValue& value, cw::ByteStreamWriter* stream) const override;
};

}  // namespace veltra::host

#endif  // VELTRA_HOST_SRC_DART_SERIALIZER_H

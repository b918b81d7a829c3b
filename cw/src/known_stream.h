// Streams that the standard serializer knows.
#ifndef CW_SRC_KNOWN_STREAM_H
#define CW_SRC_KNOWN_STREAM_H

#include <cw/standard_codec.h>

#include <typeinfo>

namespace cw::internal {

// The stream as one that is known, if that is what it is and the serializer has no overrides.
template <class Known, class Stream>
Known* AsKnown(const StandardCodecSerializer* serializer, Stream* stream) {
  const Stream& given = *stream;
  const bool known =
      serializer == &StandardCodecSerializer::GetInstance() && typeid(given) == typeid(Known);
  return known ? static_cast<Known*>(stream) : nullptr;
}

}  // namespace cw::internal

#endif  // CW_SRC_KNOWN_STREAM_H

// Streams that the standard serializer knows.
#ifndef CW_SRC_KNOWN_STREAM_H
#define CW_SRC_KNOWN_STREAM_H

#include <cw/standard_codec.h>

#include <typeinfo>

namespace cw::internal {

// GCOVR_EXCL_BR_START: comparing types has a branch for names that none of these types has.
// The stream as one that is known, if that is what it is and the serializer has no overrides.
template <class Known, class Stream>
Known* AsKnown(const StandardCodecSerializer* serializer, Stream* stream) {
  const bool known =
      serializer == &StandardCodecSerializer::GetInstance() && typeid(*stream) == typeid(Known);
  return known ? static_cast<Known*>(stream) : nullptr;
}
// GCOVR_EXCL_BR_STOP

}  // namespace cw::internal

#endif  // CW_SRC_KNOWN_STREAM_H

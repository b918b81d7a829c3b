#include "dart_serializer.h"

#include <cstdint>
#include <variant>
#include <vector>

namespace veltra::host {
namespace {

template <class T>
bool IsEmptyListOf(const cw::EncodableValue& value) {
  const auto* const list = std::get_if<std::vector<T>>(&value);
  return list != nullptr && list->empty();
}

// The alignment of the items of an empty typed list; 0 for other values.
std::uint8_t AlignmentOfEmptyList(const cw::EncodableValue& value) {
  if (IsEmptyListOf<std::int32_t>(value) || IsEmptyListOf<float>(value)) {
    return 4;
  }
  return IsEmptyListOf<std::int64_t>(value) || IsEmptyListOf<double>(value) ? 8 : 0;
}

}  // namespace

const DartSerializer& DartSerializer::GetInstance() {
  // Never destroyed: the codecs that are made for it are not either.
  static const auto* const instance = new DartSerializer;
  return *instance;
}

void DartSerializer::WriteValue(const cw::EncodableValue& value,
                                cw::ByteStreamWriter* stream) const {
  StandardCodecSerializer::WriteValue(value, stream);
  if (const std::uint8_t alignment = AlignmentOfEmptyList(value)) {
    stream->WriteAlignment(alignment);
  }
}

}  // namespace veltra::host

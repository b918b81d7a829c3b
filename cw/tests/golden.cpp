#include "golden.h"

#include <utility>

namespace cw::test_support {

namespace {

using Int64 = std::int64_t;
using ByteList = std::vector<std::uint8_t>;
using Int32List = std::vector<std::int32_t>;
using Int64List = std::vector<std::int64_t>;
using DoubleList = std::vector<double>;
using FloatList = std::vector<float>;

// A list of `count` flags and then `value`.
EncodableValue Behind(std::size_t count, EncodableValue value) {
  EncodableList list(count, EncodableValue(true));
  list.push_back(std::move(value));
  return EncodableValue(std::move(list));
}

// `value` inside `levels` lists.
EncodableValue Nest(EncodableValue value, int levels) {
  for (int i = 0; i < levels; ++i) {
    value = Behind(0, std::move(value));
  }
  return value;
}

}  // namespace

const std::vector<Golden>& Goldens() {
  static const std::vector<Golden> goldens = {
#define GOLDEN(name, value, bytes) Golden{name, EncodableValue(value), FromHex(bytes)},
#include "golden.inc"
#undef GOLDEN
  };
  return goldens;
}

}  // namespace cw::test_support

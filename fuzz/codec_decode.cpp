// Any bytes as one value: never a throw, and what was read can be written and read again.
#include "support/require.h"
#include "support/values.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using tarv::fuzz::Require;
  const auto value = cw::EncodableValue::Deserialize(data, size);
  if (tarv::fuzz::HasUnorderedKey(value)) {
    return 0;
  }
  const quarn::Buffer bytes = value.Serialize();
  Require(cw::EncodableValue::Deserialize(bytes).Serialize() == bytes,
          "what is written reads as the same value");
  return 0;
}

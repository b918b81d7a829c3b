// Any value: written and read it is the same.
#include "support/require.h"
#include "support/values.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv::fuzz;
  Script script(data, size);
  const cw::EncodableValue value = MakeValue(script);
  if (HasUnorderedKey(value)) {
    return 0;
  }
  Require(AreSame(cw::EncodableValue::Deserialize(value.Serialize()), value),
          "a value comes back as it was");
  return 0;
}

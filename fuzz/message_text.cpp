// Any text as a message: never a throw, and what was read is written and read as the same message.
#include <vorpc/message.h>

#include <string>

#include "support/require.h"
#include "support/values.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv::fuzz;
  const auto message = vorpc::Message::FromBase64({reinterpret_cast<const char*>(data), size});
  if (message.IsEmpty()) {
    return 0;
  }
  const cw::EncodableValue value = message.ToEncodable();
  if (!HasUnorderedKey(value)) {
    const auto again = vorpc::Message::FromBase64(message.ToBase64());
    Require(AreSame(again.ToEncodable(), value), "a message comes back as it was");
  }
  return 0;
}

// Any bytes and any text, by every coder that this processor has: all give what the definition
// gives.
#include <quarn/buffer.h>

#include <string>
#include <vector>

#include "base64_coders.h"
#include "support/require.h"

namespace {

namespace base64 = quarn::base64;
using tarv::fuzz::Require;

void Encode(const std::uint8_t* data, std::size_t size) {
  std::string expected((size + 2) / 3 * 4, '\0');
  base64::reference::Encode(data, size, expected.data());
  for (const base64::Coder& coder : base64::GetCoders()) {
    std::string text(expected.size(), '\0');
    if (coder.is_supported()) {
      base64::EncodeBy(coder, data, size, text.data());
      Require(text == expected, coder.name);
    }
  }
  Require(quarn::Buffer(data, size).ToBase64() == expected, "the buffer's text");
  Require(quarn::Buffer::FromBase64(expected) == quarn::Buffer(data, size), "there and back");
}

void Decode(const std::string& text) {
  std::vector<std::uint8_t> expected(text.size());
  const bool is_canonical = text.size() >= 4 && text.size() % 4 == 0 &&
                            base64::reference::Decode(text.data(), text.size(), expected.data());
  const quarn::Buffer bytes = quarn::Buffer::FromBase64(text);
  Require((bytes.GetSize() > 0) == is_canonical, "the canonical texts alone are read");
  for (std::size_t i = 0; i < bytes.GetSize(); ++i) {
    Require(bytes.GetData()[i] == expected[i], "the bytes of a text");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Encode(data, size);
  Decode({reinterpret_cast<const char*>(data), size});
  return 0;
}

// Bytes in tests: written as text, "07 02 68 69", a repeated byte as "61*300".
#ifndef CW_TESTS_SUPPORT_BYTES_H
#define CW_TESTS_SUPPORT_BYTES_H

#include <quarn/buffer.h>

#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace cw::test_support {

using Bytes = std::vector<std::uint8_t>;

inline Bytes FromHex(const std::string& text) {
  Bytes bytes;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    std::size_t end = 0;
    const auto byte = static_cast<std::uint8_t>(std::stoul(word, &end, 16));
    const bool repeats = end < word.size() && word[end] == '*';
    if (end != 2 || (!repeats && end != word.size())) {
      throw std::invalid_argument("not a byte: " + word);
    }
    bytes.insert(bytes.end(), repeats ? std::stoul(word.substr(end + 1)) : 1, byte);
  }
  return bytes;
}

inline Bytes ToBytes(const quarn::Buffer& buffer) {
  return buffer.GetData() == nullptr ? Bytes()
                                     : Bytes(buffer.GetData(), buffer.GetData() + buffer.GetSize());
}

}  // namespace cw::test_support

#endif  // CW_TESTS_SUPPORT_BYTES_H

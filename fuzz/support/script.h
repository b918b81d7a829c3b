// The bytes of a fuzzer's input, read as a script of decisions.
#ifndef FUZZ_SUPPORT_SCRIPT_H
#define FUZZ_SUPPORT_SCRIPT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace tarv::fuzz {

// Reads from the front. Past the end everything is zero, so that every input is a whole script; a
// loop asks HasMore().
class Script {
 public:
  Script(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool HasMore() const { return size_ > 0; }

  std::uint8_t Byte() {
    std::uint8_t byte = 0;
    Take(&byte, 1);
    return byte;
  }

  // A number below `bound`, which is at most 256 and not 0.
  std::size_t Below(std::size_t bound) { return Byte() % bound; }

  bool Flag() { return Below(2) == 1; }

  // A number of any type, bit by bit.
  template <class T>
  T Number() {
    T number{};
    std::uint8_t bytes[sizeof(T)] = {};
    Take(bytes, sizeof(T));
    std::memcpy(&number, bytes, sizeof(T));
    return number;
  }

  // Its length comes first and is at most 255.
  std::vector<std::uint8_t> Bytes() {
    std::vector<std::uint8_t> bytes(std::min<std::size_t>(Byte(), size_));
    Take(bytes.data(), bytes.size());
    return bytes;
  }
  std::string Text() {
    const std::vector<std::uint8_t> bytes = Bytes();
    return {bytes.begin(), bytes.end()};
  }

  // Up to the next line end, which is taken, too.
  std::string Line() {
    std::string line;
    for (char sign = 0; HasMore() && (sign = static_cast<char>(Byte())) != '\n';) {
      line += sign;
    }
    return line;
  }

  // All that is left.
  std::string Rest() {
    std::string rest(size_, '\0');
    Take(reinterpret_cast<std::uint8_t*>(rest.data()), rest.size());
    return rest;
  }

 private:
  void Take(std::uint8_t* out, std::size_t size) {
    const std::size_t count = std::min(size, size_);
    if (count > 0) {
      std::memcpy(out, data_, count);
      data_ += count;
      size_ -= count;
    }
  }

  const std::uint8_t* data_;
  std::size_t size_;
};

}  // namespace tarv::fuzz

#endif  // FUZZ_SUPPORT_SCRIPT_H

// Any bytes and any text, by every coder that this processor has: all give what the definition
// gives.
#include <quarn/buffer.h>
#include <quarn/internal/base64.h>

#include <algorithm>
#include <string>
#include <utility>
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

// What was read of a text by a function that is given all but the place for it.
struct Reading {
  bool is_canonical;
  std::vector<std::uint8_t> bytes;
};

template <class Read>
Reading ReadBy(const std::string& text, const Read& read) {
  std::vector<std::uint8_t> room(text.size());
  const bool is_canonical = read(text.data(), text.size(), room.data());
  room.resize(is_canonical ? base64::DecodedSize(text.data(), text.size()).value() : 0);
  return {is_canonical, std::move(room)};
}

// Which coder a program uses is up to its processor: each is asked here.
void DecodeByEach(const std::string& text, const Reading& expected) {
  for (const base64::Coder& coder : base64::GetCoders()) {
    if (coder.is_supported()) {
      const Reading reading =
          ReadBy(text, [&coder](auto... what) { return DecodeBy(coder, what...); });
      Require(reading.is_canonical == expected.is_canonical, coder.name);
      Require(reading.bytes == expected.bytes, coder.name);
    }
  }
}

void Decode(const std::string& text) {
  const bool has_length = text.size() >= 4 && text.size() % 4 == 0;
  const Reading expected = has_length ? ReadBy(text, &base64::reference::Decode) : Reading{};
  if (has_length) {
    DecodeByEach(text, expected);
  }
  const quarn::Buffer bytes = quarn::Buffer::FromBase64(text);
  Require((bytes.GetSize() > 0) == expected.is_canonical, "the canonical texts alone are read");
  Require(std::equal(expected.bytes.begin(), expected.bytes.end(), bytes.GetData(),
                     bytes.GetData() + bytes.GetSize()),
          "the bytes of a text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Encode(data, size);
  // Bytes at random are hardly ever a text: these are, up to a change of one character.
  std::string text = quarn::Buffer(data, size).ToBase64();
  Decode(text);
  if (size >= 3) {
    text[(data[0] * std::size_t{256} + data[1]) % text.size()] = static_cast<char>(data[2]);
    Decode(text);
  }
  Decode({reinterpret_cast<const char*>(data), size});
  return 0;
}

#include <array>
#include <cstring>

#include "base64_coders.h"

namespace quarn::base64 {
namespace {

constexpr std::uint8_t kForeign = 0xFF;
// Set in a decoding table's entry for a character outside the alphabet; no 24-bit group has it.
constexpr std::uint32_t kForeignBit = 1U << 24;

constexpr std::array<std::uint8_t, 256> MakeValues() {
  std::array<std::uint8_t, 256> values{};
  for (auto& value : values) {
    value = kForeign;
  }
  for (std::uint8_t i = 0; i < 64; ++i) {
    values[static_cast<std::uint8_t>(kAlphabet[i])] = i;
  }
  return values;
}

constexpr std::array<std::uint8_t, 256> kValues = MakeValues();

// Two characters for each 12-bit half of a group.
struct Pair {
  char text[2];
};

constexpr std::array<Pair, 4096> MakePairs() {
  std::array<Pair, 4096> pairs{};
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    pairs[i].text[0] = kAlphabet[i >> 6];
    pairs[i].text[1] = kAlphabet[i & 63];
  }
  return pairs;
}

constexpr std::array<Pair, 4096> kPairs = MakePairs();

// The bits that a character adds to its 24-bit group, by its place in the quad.
constexpr std::array<std::array<std::uint32_t, 256>, 4> MakeShares() {
  std::array<std::array<std::uint32_t, 256>, 4> shares{};
  for (std::size_t place = 0; place < 4; ++place) {
    for (std::size_t c = 0; c < 256; ++c) {
      const std::uint32_t value = kValues[c];
      shares[place][c] = value == kForeign ? kForeignBit : value << (18 - 6 * place);
    }
  }
  return shares;
}

constexpr std::array<std::array<std::uint32_t, 256>, 4> kShares = MakeShares();

std::uint8_t ValueOf(char c) { return kValues[static_cast<std::uint8_t>(c)]; }

std::uint32_t Share(std::size_t place, char c) {
  return kShares[place][static_cast<std::uint8_t>(c)];
}

std::uint32_t LoadQuad(const char* text) {
  return Share(0, text[0]) | Share(1, text[1]) | Share(2, text[2]) | Share(3, text[3]);
}

void StoreGroup(std::uint32_t group, std::uint8_t* out) {
  out[0] = static_cast<std::uint8_t>(group >> 16);
  out[1] = static_cast<std::uint8_t>(group >> 8);
  out[2] = static_cast<std::uint8_t>(group);
}

// Writes the last quad of a text that ends with padding, for the one or two bytes left over.
void EncodeTail(const std::uint8_t* data, std::size_t size, char* out) {
  out[0] = kAlphabet[data[0] >> 2];
  if (size == 1) {
    out[1] = kAlphabet[(data[0] & 0x03) << 4];
    out[2] = '=';
  } else {
    out[1] = kAlphabet[(data[0] & 0x03) << 4 | data[1] >> 4];
    out[2] = kAlphabet[(data[1] & 0x0F) << 2];
  }
  out[3] = '=';
}

}  // namespace

namespace tables {

void Encode(const std::uint8_t* data, std::size_t size, char* out) {
  const std::uint8_t* const full_end = data + size / 3 * 3;
  for (; data != full_end; data += 3, out += 4) {
    const std::uint32_t group = static_cast<std::uint32_t>(data[0]) << 16 |
                                static_cast<std::uint32_t>(data[1]) << 8 | data[2];
    std::memcpy(out, &kPairs[group >> 12], 2);
    std::memcpy(out + 2, &kPairs[group & 0xFFF], 2);
  }
  if (size % 3 != 0) {
    EncodeTail(data, size % 3, out);
  }
}

bool DecodeGroups(const char* text, std::size_t length, std::uint8_t* out) {
  std::uint32_t seen = 0;
  for (const char* const end = text + length; text != end; text += 4, out += 3) {
    const std::uint32_t group = LoadQuad(text);
    seen |= group;
    StoreGroup(group, out);
  }
  return (seen & kForeignBit) == 0;
}

bool DecodeLastQuad(const char* text, std::uint8_t* out) {
  const std::uint8_t a = ValueOf(text[0]);
  const std::uint8_t b = ValueOf(text[1]);
  if (a == kForeign || b == kForeign) {
    return false;
  }
  *out++ = static_cast<std::uint8_t>(a << 2 | b >> 4);
  if (text[2] == '=') {
    return text[3] == '=' && (b & 0x0F) == 0;
  }
  const std::uint8_t c = ValueOf(text[2]);
  if (c == kForeign) {
    return false;
  }
  *out++ = static_cast<std::uint8_t>(b << 4 | c >> 2);
  if (text[3] == '=') {
    return (c & 0x03) == 0;
  }
  const std::uint8_t d = ValueOf(text[3]);
  *out = static_cast<std::uint8_t>(c << 6 | d);
  return d != kForeign;
}

}  // namespace tables

namespace reference {

void Encode(const std::uint8_t* data, std::size_t size, char* out) {
  std::size_t i = 0;
  for (; i + 3 <= size; i += 3) {
    *out++ = kAlphabet[data[i] >> 2];
    *out++ = kAlphabet[(data[i] & 0x03) << 4 | data[i + 1] >> 4];
    *out++ = kAlphabet[(data[i + 1] & 0x0F) << 2 | data[i + 2] >> 6];
    *out++ = kAlphabet[data[i + 2] & 0x3F];
  }
  if (i != size) {
    EncodeTail(data + i, size - i, out);
  }
}

bool Decode(const char* text, std::size_t length, std::uint8_t* out) {
  std::size_t i = 0;
  for (; i + 4 < length; i += 4) {
    std::uint32_t group = 0;
    for (std::size_t place = 0; place < 4; ++place) {
      const std::uint8_t value = ValueOf(text[i + place]);
      if (value == kForeign) {
        return false;
      }
      group = group << 6 | value;
    }
    StoreGroup(group, out);
    out += 3;
  }
  return tables::DecodeLastQuad(text + i, out);
}

}  // namespace reference

}  // namespace quarn::base64

// Base64 (RFC 4648, section 4) straight between caller-provided buffers.
#ifndef QUARN_INTERNAL_BASE64_H
#define QUARN_INTERNAL_BASE64_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quarn::base64 {

// The most 3-byte groups whose text, four characters each, can still be addressed with room to
// spare.
constexpr std::size_t kMaxGroups = 0x0FFFFFFFFFFFFFFF;

// Characters that `size` bytes take, padding included; none when that is more than can be
// addressed.
constexpr std::optional<std::size_t> EncodedLength(std::size_t size) {
  const std::size_t groups = size / 3 + (size % 3 != 0 ? 1 : 0);
  if (groups > kMaxGroups) {
    return std::nullopt;
  }
  return groups * 4;
}

// The text of `size` bytes; empty, after a log line, when it would be too large to address, without
// a look at the bytes.
std::string EncodeToText(const std::uint8_t* data, std::size_t size);

// Appends the text of `size` bytes.
void AppendText(const std::uint8_t* data, std::size_t size, std::string& text);

// The bytes of a canonical text; none for any other.
std::optional<std::vector<std::uint8_t>> DecodeToBytes(const char* text, std::size_t length);

// Writes EncodedLength(size) characters to `out`.
void Encode(const std::uint8_t* data, std::size_t size, char* out);

// Bytes that a well-formed text of `length` characters holds, judged by its padding alone; none
// when no canonical text has this length.
std::optional<std::size_t> DecodedSize(const char* text, std::size_t length);

// Decodes a text whose DecodedSize is known into `out`. False, with `out` partly written, when the
// text is not canonical.
bool Decode(const char* text, std::size_t length, std::uint8_t* out);

// Decodes a text of whole groups, without padding: a multiple of four characters. False, with `out`
// partly written, when one is foreign.
bool DecodeGroups(const char* text, std::size_t length, std::uint8_t* out);

}  // namespace quarn::base64

#endif  // QUARN_INTERNAL_BASE64_H

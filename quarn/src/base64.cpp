#include <quarn/internal/base64.h>
#include <quarn/logger.h>

#include <algorithm>
#include <array>

#include "base64_coders.h"

namespace quarn::base64 {
namespace {

// A string or vector cannot be made without filling it first. So each block is coded into an array,
// which stays in the CPU's cache, and then appended.
constexpr std::size_t kBlockBytes = 3072;
constexpr std::size_t kBlockLength = kBlockBytes / 3 * 4;

std::vector<Coder> MakeCoders() {
  std::vector<Coder> coders = GetVectorCoders();
  coders.push_back({"Tables", [] { return true; },
                    [](const std::uint8_t*, std::size_t, char*) { return std::size_t{0}; },
                    [](const char*, std::size_t, std::uint8_t*) { return std::size_t{0}; }});
  return coders;
}

const Coder& FindBestCoder() {
  return *std::find_if(GetCoders().begin(), GetCoders().end(),
                       [](const Coder& candidate) { return candidate.is_supported(); });
}

const Coder& BestCoder() {
  static const Coder& coder = FindBestCoder();
  return coder;
}

}  // namespace

#if !defined(__x86_64__) && !defined(__aarch64__)
std::vector<Coder> GetVectorCoders() { return {}; }
#endif

const std::vector<Coder>& GetCoders() {
  // Never destroyed: other objects may still encode while the process exits.
  static const auto* const coders = new std::vector<Coder>(MakeCoders());
  return *coders;
}

void EncodeBy(const Coder& coder, const std::uint8_t* data, std::size_t size, char* out) {
  const std::size_t done = coder.encode(data, size, out);
  tables::Encode(data + done, size - done, out + done / 3 * 4);
}

bool DecodeGroupsBy(const Coder& coder, const char* text, std::size_t length, std::uint8_t* out) {
  const std::size_t done = coder.decode(text, length, out);
  return tables::DecodeGroups(text + done, length - done, out + done / 4 * 3);
}

bool DecodeBy(const Coder& coder, const char* text, std::size_t length, std::uint8_t* out) {
  const std::size_t groups = length - 4;
  return DecodeGroupsBy(coder, text, groups, out) &&
         tables::DecodeLastQuad(text + groups, out + groups / 4 * 3);
}

void Encode(const std::uint8_t* data, std::size_t size, char* out) {
  EncodeBy(BestCoder(), data, size, out);
}

bool Decode(const char* text, std::size_t length, std::uint8_t* out) {
  return DecodeBy(BestCoder(), text, length, out);
}

bool DecodeGroups(const char* text, std::size_t length, std::uint8_t* out) {
  return DecodeGroupsBy(BestCoder(), text, length, out);
}

std::string EncodeToText(const std::uint8_t* data, std::size_t size) {
  const auto length = EncodedLength(size);
  if (!length) {
    QUARN_LOG_ERROR() << "Buffer is too large to encode as Base64.";
    return {};
  }
  std::string text;
  text.reserve(*length);
  AppendText(data, size, text);
  return text;
}

void AppendText(const std::uint8_t* data, std::size_t size, std::string& text) {
  std::array<char, kBlockLength> block;
  for (std::size_t begin = 0; begin < size; begin += kBlockBytes) {
    const std::size_t count = std::min(kBlockBytes, size - begin);
    Encode(data + begin, count, block.data());
    text.append(block.data(), (count + 2) / 3 * 4);
  }
}

std::optional<std::size_t> DecodedSize(const char* text, std::size_t length) {
  if (length < 4 || length % 4 != 0) {
    return std::nullopt;
  }
  std::size_t padding = 0;
  if (text[length - 1] == '=') {
    padding = text[length - 2] == '=' ? 2 : 1;
  }
  return length / 4 * 3 - padding;
}

std::optional<std::vector<std::uint8_t>> DecodeToBytes(const char* text, std::size_t length) {
  const auto size = DecodedSize(text, length);
  if (!size) {
    return std::nullopt;
  }
  std::vector<std::uint8_t> bytes;
  bytes.reserve(*size);
  std::array<std::uint8_t, kBlockBytes> block;
  for (; length > kBlockLength; text += kBlockLength, length -= kBlockLength) {
    if (!DecodeGroups(text, kBlockLength, block.data())) {
      return std::nullopt;
    }
    bytes.insert(bytes.end(), block.begin(), block.end());
  }
  if (!Decode(text, length, block.data())) {
    return std::nullopt;
  }
  bytes.insert(bytes.end(), block.data(), block.data() + (*size - bytes.size()));
  return bytes;
}

}  // namespace quarn::base64

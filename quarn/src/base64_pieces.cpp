#include <quarn/internal/base64.h>
#include <quarn/internal/base64_pieces.h>
#include <quarn/internal/large_memory.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace quarn {

namespace {

constexpr std::size_t kGroup = 3;  // bytes
constexpr std::size_t kQuad = 4;   // characters

constexpr std::size_t TextLength(std::size_t size) { return (size + kGroup - 1) / kGroup * kQuad; }

}  // namespace

void Base64Encoder::Expect(std::size_t size) {
  // Bytes that all fit into the block become a text of the exact size in Finish.
  if (size > block_.size()) {
    text_.reserve(TextLength(size));
  }
}

void Base64Encoder::Write(const std::uint8_t* data, std::size_t size) {
  // The block's size is a multiple of a group's, so a group that has begun in it ends in it.
  const std::size_t head =
      size <= block_.size() - length_ ? size : (kGroup - length_ % kGroup) % kGroup;
  if (head != 0) {
    std::memcpy(block_.data() + length_, data, head);
    length_ += head;
  }
  if (head == size) {
    return;
  }
  // For what follows a large piece, which is seldom another one.
  constexpr std::size_t kRoomBehind = 8192;
  Flush();
  if (text_.capacity() - text_.size() < TextLength(size)) {
    text_.reserve(text_.size() + TextLength(size) + kRoomBehind);
  }
  ExpectFilling(text_.data() + text_.size(), TextLength(size));
  const std::size_t whole = (size - head) / kGroup * kGroup;
  Append(data + head, whole);
  length_ = size - head - whole;
  std::memcpy(block_.data(), data + head + whole, length_);
}

std::string Base64Encoder::Finish() {
  Append(block_.data(), length_);
  length_ = 0;
  return std::move(text_);
}

void Base64Encoder::Flush() {
  const std::size_t rest = length_ % kGroup;
  Append(block_.data(), length_ - rest);
  std::memmove(block_.data(), block_.data() + (length_ - rest), rest);
  length_ = rest;
}

void Base64Encoder::Append(const std::uint8_t* data, std::size_t size) {
  encoded_ += size;
  base64::AppendText(data, size, text_);
}

Base64Decoder::Base64Decoder(std::string_view text)
    : text_(text), bytes_left_(base64::DecodedSize(text.data(), text.size()).value()) {}

bool Base64Decoder::Decode(std::uint8_t* out, std::size_t size) {
  if (size == bytes_left_) {
    bytes_left_ = 0;
    return size == 0 || base64::Decode(text_.data(), text_.size(), out);
  }
  const std::size_t length = size / kGroup * kQuad;
  const bool done = base64::DecodeGroups(text_.data(), length, out);
  text_.remove_prefix(length);
  bytes_left_ -= size;
  return done;
}

}  // namespace quarn

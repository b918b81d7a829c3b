// Base64 piece by piece, so that a large text and its bytes need not both be in memory as a whole.
#ifndef QUARN_INTERNAL_BASE64_PIECES_H
#define QUARN_INTERNAL_BASE64_PIECES_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace quarn {

// Makes the text of bytes that come one after the other. One thread at a time.
class Base64Encoder {
 public:
  // The most bytes that Gather takes.
  static constexpr std::size_t kLongestPiece = 512;

  Base64Encoder() {}  // NOLINT(modernize-use-equals-default): leaves the block as it is
  Base64Encoder(const Base64Encoder&) = delete;
  Base64Encoder& operator=(const Base64Encoder&) = delete;

  // Bytes so far.
  std::size_t GetSize() const { return encoded_ + length_; }

  // The text goes into this text's memory, as far as it reaches. Called first.
  void UseRoom(std::string&& room) { text_ = std::move(room); }
  // About `size` bytes will come in all.
  void Expect(std::size_t size);

  // Room for the next `length` bytes, up to kLongestPiece, which the caller fills at once.
  std::uint8_t* Gather(std::size_t length) {
    if (length > block_.size() - length_) {
      Flush();
    }
    length_ += length;
    return block_.data() + (length_ - length);
  }

  // The next `size` bytes.
  void Write(const std::uint8_t* data, std::size_t size);

  // The text of all bytes. Nothing comes after it.
  std::string Finish();

 private:
  // Encodes all whole groups that are gathered.
  void Flush();
  void Append(const std::uint8_t* data, std::size_t size);

  std::string text_;
  std::size_t encoded_ = 0;  // bytes in the text
  std::size_t length_ = 0;   // bytes gathered behind them
  std::array<std::uint8_t, 3072> block_;
};

// Decodes a text from its front. One thread at a time.
class Base64Decoder {
 public:
  // The text stays the caller's. It must have a base64::DecodedSize.
  explicit Base64Decoder(std::string_view text);

  // Bytes that are not decoded yet, judged by the text's length and padding.
  std::size_t GetBytesLeft() const { return bytes_left_; }

  // Decodes the next `size` bytes: a multiple of three, or all that are left. False when their text
  // is not canonical; the decoder is of no use then.
  bool Decode(std::uint8_t* out, std::size_t size);

 private:
  std::string_view text_;  // the rest, which is not decoded yet
  std::size_t bytes_left_;
};

}  // namespace quarn

#endif  // QUARN_INTERNAL_BASE64_PIECES_H

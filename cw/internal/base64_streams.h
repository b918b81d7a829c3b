// Streams over the Base64 text of a message, which spare the message's bytes as a whole between its
// value and its text.
#ifndef CW_INTERNAL_BASE64_STREAMS_H
#define CW_INTERNAL_BASE64_STREAMS_H

#include <cw/byte_streams.h>
#include <quarn/internal/base64_pieces.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

namespace cw {

// Makes the text of what is written. One thread at a time.
class Base64StreamWriter final : public ByteStreamWriter {
 public:
  void WriteByte(std::uint8_t byte) override { *encoder_.Gather(1) = byte; }
  void WriteBytes(const std::uint8_t* data, std::size_t length) override {
    encoder_.Write(data, length);
  }
  void WriteAlignment(std::uint8_t alignment) override;

  quarn::Base64Encoder& GetEncoder() { return encoder_; }

 private:
  quarn::Base64Encoder encoder_;
};

// Reads the bytes of a text, which are decoded as they are asked for. Throws GiveUp at the first
// thing that is not as it should be: a text that is not canonical, or a read past the end. Nothing
// is reported, so whoever catches it can read the message once more by a ByteBufferStreamReader,
// which reports what there is to report.
class Base64StreamReader final : public ByteStreamReader {
 public:
  struct GiveUp : std::exception {};
  struct Piece {
    const std::uint8_t* data;
    std::size_t size;
  };

  // The longest piece that TakeBytes gives.
  static constexpr std::size_t kLongestTaken = 3072;

  // The text stays the caller's and must outlive the reader. It must have a base64::DecodedSize.
  explicit Base64StreamReader(std::string_view text)
      : decoder_(text), size_(decoder_.GetBytesLeft()) {}

  std::uint8_t ReadByte() override { return *TakeBytes(1); }
  void ReadBytes(std::uint8_t* out, std::size_t length) override;
  void ReadAlignment(std::uint8_t alignment) override;
  std::size_t BytesLeft() const override { return end_ - begin_ + decoder_.GetBytesLeft(); }
  // Takes no empty list for padded; CheckRest tells if that was wrong.
  void ReadEmptyListAlignment(std::uint8_t alignment) override {
    passed_padding_by_ |= (size_ - BytesLeft()) % alignment != 0;
  }

  // The next `length` bytes, up to kLongestTaken, and moves past them. Valid until the next read.
  const std::uint8_t* TakeBytes(std::size_t length) {
    if (length > end_ - begin_) {
      DecodeMore(length);
    }
    begin_ += length;
    return window_.data() + (begin_ - length);
  }

  // The next bytes, at least one and at most `length`, and moves past them. Valid until the next
  // read.
  Piece TakeUpTo(std::size_t length);

  // To be called at the end. Reads all that is left, for nothing but what is wrong with it; gives
  // up when something is left of a message with an empty list, which must have been padded.
  void CheckRest();

 private:
  // Decodes into the window, so that it holds at least `wanted` bytes.
  void DecodeMore(std::size_t wanted);

  quarn::Base64Decoder decoder_;
  std::size_t size_;
  std::size_t begin_ = 0;  // in the window, of the bytes that are decoded and not read
  std::size_t end_ = 0;
  bool passed_padding_by_ = false;  // behind the size of an empty list
  std::array<std::uint8_t, 2 * kLongestTaken> window_;
};

}  // namespace cw

#endif  // CW_INTERNAL_BASE64_STREAMS_H

// quarn::Buffer: the growable byte buffer of codecs, caches and messages.
#ifndef QUARN_BUFFER_H
#define QUARN_BUFFER_H

#include <quarn/buffer_view.h>
#include <quarn/export.h>
#include <quarn/result.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace quarn {

// A sequence of bytes. A moved-from buffer is empty. Like a standard container, one buffer is not
// for several threads at once.
class TARV_EXPORT Buffer {
 public:
  Buffer() = default;
  explicit Buffer(const std::vector<std::uint8_t>& bytes) : bytes_(bytes) {}
  explicit Buffer(std::vector<std::uint8_t>&& bytes) noexcept : bytes_(std::move(bytes)) {}
  // Copies `size` bytes; a null `data` or a zero `size` gives an empty buffer.
  Buffer(const std::uint8_t* data, std::size_t size);

  Buffer(const Buffer&) = default;
  Buffer& operator=(const Buffer&) = default;
  Buffer(Buffer&& other) noexcept : bytes_(std::move(other.bytes_)) { other.bytes_.clear(); }
  Buffer& operator=(Buffer&& other) noexcept;
  ~Buffer() = default;

  // Moves the bytes out and leaves the buffer empty. Empty pointer when there are none.
  std::unique_ptr<std::vector<std::uint8_t>> Extract();

  void WriteByte(std::uint8_t byte) { bytes_.push_back(byte); }
  // Appends `size` bytes; does nothing when `data` is null or `size` is 0. `data` may not lie in
  // this buffer.
  void WriteBytes(const std::uint8_t* data, std::size_t size);
  // Appends zero bytes until the size is a multiple of `alignment`, counted from the buffer's
  // start; nothing for an alignment of 0.
  void WriteAlignment(std::uint8_t alignment);
  void Reserve(std::size_t capacity) { bytes_.reserve(capacity); }

  std::size_t GetSize() const { return bytes_.size(); }
  // The first byte, or null when the buffer is empty. Valid until the buffer changes or dies.
  std::uint8_t* GetData() { return bytes_.empty() ? nullptr : bytes_.data(); }
  const std::uint8_t* GetData() const { return bytes_.empty() ? nullptr : bytes_.data(); }

  // Describes the bytes in `view`, as far as its `view_size` bytes reach; they stay the buffer's
  // own. INVALID_ARGUMENT, after a log line, for a null view; else SUCCESS.
  QuarnResult ToCAPI(QuarnBufferView* view, std::size_t view_size) const;
  // A copy of the bytes that `view` describes; empty for a null view.
  static Buffer FromCAPI(QuarnBufferView* view);

  // The bytes in Base64 (RFC 4648, section 4: standard alphabet, padded, no line breaks). Empty,
  // after a log line, when the text would be too large to address.
  std::string ToBase64() const;
  // The bytes of a canonical Base64 text. Anything else (foreign characters, missing or misplaced
  // padding, bits left over before it) gives an empty buffer.
  static Buffer FromBase64(const std::string& text);

  friend bool operator==(const Buffer& a, const Buffer& b) { return a.bytes_ == b.bytes_; }
  friend bool operator!=(const Buffer& a, const Buffer& b) { return !(a == b); }

 private:
  std::vector<std::uint8_t> bytes_;
};

}  // namespace quarn

#endif  // QUARN_BUFFER_H

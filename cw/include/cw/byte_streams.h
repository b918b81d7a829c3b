// The streams that serializers write to and read from, and those over buffers.
#ifndef CW_BYTE_STREAMS_H
#define CW_BYTE_STREAMS_H

#include <cw/codec_limits.h>
#include <quarn/buffer.h>
#include <quarn/export.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace cw {

namespace internal {

[[noreturn]] TARV_EXPORT void ThrowTooDeep(const char* action);
[[noreturn]] TARV_EXPORT void ThrowTooManyMadeUp();

// Counts how much of the bounds in codec_limits.h reading one message has used up: one budget for
// the whole message, whatever the nesting. Every operation throws std::length_error when a bound is
// passed. All is inline, because it is done for every value.
class DecodeBudget {
 public:
  // One value more, or less, is being read inside others.
  void EnterValue() {
    // One more than the containers: the innermost one may still hold plain values.
    CheckContainer();
    ++depth_;
  }
  void LeaveValue() { --depth_; }
  bool IsInsideValue() const { return depth_ > 0; }

  // The value being read is a list or map.
  void CheckContainer() const {
    if (depth_ > kMaxNesting) {
      ThrowTooDeep("read");
    }
  }

  // A container announces `count` items of at least `item_size` bytes each, with `bytes_left` to
  // come. Everything announced and not begun must find a byte of its own or be made up, so headers
  // that each claim the rest of the message add up.
  void Announce(std::size_t count, std::size_t item_size, std::size_t bytes_left) {
    const std::size_t missing_here = Shortfall(count, bytes_left / item_size);
    const std::size_t missing_in_all = Shortfall(announced_ + count, bytes_left);
    if (std::max(missing_here, missing_in_all) > Left()) {
      ThrowTooManyMadeUp();
    }
    announced_ += count;
  }
  // One announced item is begun.
  void Begin(std::size_t item_size, std::size_t bytes_left) {
    // Where no byte is left, all that is announced has to be made up: say so before the first item.
    if (bytes_left == 0 && announced_ > Left()) {
      ThrowTooManyMadeUp();
    }
    if (bytes_left < item_size) {
      MakeUp(1);
    }
    --announced_;
  }
  // `count` announced items will not be read.
  void Withdraw(std::size_t count) { announced_ -= count; }

  // `count` items are made up.
  void MakeUp(std::size_t count) {
    if (count > Left()) {
      ThrowTooManyMadeUp();
    }
    made_up_ += count;
  }

 private:
  static std::size_t Shortfall(std::size_t wanted, std::size_t available) {
    return wanted > available ? wanted - available : 0;
  }
  std::size_t Left() const { return kMaxMadeUpItems - made_up_; }

  std::size_t depth_ = 0;
  std::size_t announced_ = 0;
  std::size_t made_up_ = 0;
};

// Reports the faults of one message that is read: a line on standard error for each, up to
// kMaxReportedFaults, then one that says that there are more.
class TARV_EXPORT FaultReports {
 public:
  FaultReports() = default;
  // Writes the lines that are still held.
  ~FaultReports() {
    if (!held_.empty()) {
      Write();
    }
  }
  FaultReports(const FaultReports&) = delete;
  FaultReports& operator=(const FaultReports&) = delete;

  [[gnu::cold]] void AddInvalidRead();
  [[gnu::cold]] void AddUnknownType(std::uint8_t type);
  bool IsEmpty() const { return faults_ == 0; }

  // Holds the lines that come from here on, until they are dropped or this object dies.
  void Hold() { holds_ = true; }
  void Drop() { held_.clear(); }

 private:
  // Counts a fault. True when its line is wanted.
  bool Count();
  void Add(const std::string& line);
  void Write();

  std::size_t faults_ = 0;  // no longer counted once there are too many
  bool holds_ = false;
  std::string held_;
};

// Reads whole messages; see cw/internal/whole_message.h.
class UnpaddedReading;

}  // namespace internal

// Where a serializer writes one message. One thread at a time.
class TARV_EXPORT ByteStreamWriter {
 public:
  ByteStreamWriter() = default;
  ByteStreamWriter(const ByteStreamWriter&) = delete;
  ByteStreamWriter& operator=(const ByteStreamWriter&) = delete;

  virtual ~ByteStreamWriter() = default;
  virtual void WriteByte(std::uint8_t byte) = 0;
  // Appends `length` bytes; `data` may be null when there are none.
  virtual void WriteBytes(const std::uint8_t* data, std::size_t length) = 0;
  // Appends zero bytes up to a multiple of `alignment`, counted from the start of the message.
  virtual void WriteAlignment(std::uint8_t alignment) = 0;

 private:
  friend class NestingScope;
  std::size_t nesting_ = 0;
};

// One level of nesting on a writer, while it lives. Whoever writes the header and the items of a
// list, a map or a type of their own opens one around them. Throws std::length_error past
// kMaxNesting.
class NestingScope {
 public:
  explicit NestingScope(ByteStreamWriter* stream) : stream_(stream) {
    if (stream_->nesting_ >= kMaxNesting) {
      internal::ThrowTooDeep("write");
    }
    ++stream_->nesting_;
  }
  ~NestingScope() { --stream_->nesting_; }
  NestingScope(const NestingScope&) = delete;
  NestingScope& operator=(const NestingScope&) = delete;

 private:
  ByteStreamWriter* stream_;
};

// Writes to the end of a buffer. Start with an empty one: alignment counts from the buffer's start.
class TARV_EXPORT ByteBufferStreamWriter final : public ByteStreamWriter {
 public:
  // `buffer` stays the caller's and must outlive the writer.
  explicit ByteBufferStreamWriter(quarn::Buffer* buffer) : buffer_(buffer) {}

  void WriteByte(std::uint8_t byte) override { buffer_->WriteByte(byte); }
  void WriteBytes(const std::uint8_t* data, std::size_t length) override {
    buffer_->WriteBytes(data, length);
  }
  void WriteAlignment(std::uint8_t alignment) override { buffer_->WriteAlignment(alignment); }

  quarn::Buffer* GetBuffer() const { return buffer_; }

 private:
  quarn::Buffer* buffer_;
};

// Where a serializer reads one message from. One thread at a time.
class TARV_EXPORT ByteStreamReader {
 public:
  ByteStreamReader() = default;
  ByteStreamReader(const ByteStreamReader&) = delete;
  ByteStreamReader& operator=(const ByteStreamReader&) = delete;

  virtual ~ByteStreamReader() = default;
  // The next byte; 0 past the end.
  virtual std::uint8_t ReadByte() = 0;
  // The next `length` bytes into `out`; when there are fewer, leaves `out` and the position alone.
  virtual void ReadBytes(std::uint8_t* out, std::size_t length) = 0;
  // Moves on to the next multiple of `alignment`, counted from the start of the message.
  virtual void ReadAlignment(std::uint8_t alignment) = 0;
  // How many bytes are left for certain. Bytes beyond those count as made up, so with this default
  // at most kMaxMadeUpItems items can be read: override it for larger messages.
  virtual std::size_t BytesLeft() const { return 0; }
  // Called in place of ReadAlignment behind the size of an empty list of items wider than a byte.
  // The format pads such a list as any other, but peers that leave the padding out are common (the
  // standard serializer here is one): a stream whose writer is known to do so overrides this.
  virtual void ReadEmptyListAlignment(std::uint8_t alignment) { ReadAlignment(alignment); }

  // For serializers: the budget of the message that this stream holds, and what is wrong with it.
  internal::DecodeBudget& GetBudget() { return budget_; }
  internal::FaultReports& GetReports() { return reports_; }

 private:
  internal::DecodeBudget budget_;
  internal::FaultReports reports_;
};

// Reads a range of bytes. Each read past the end yields zeros and writes one line to standard
// error, "Invalid read in StandardCodecByteStreamReader", up to the kMaxReportedFaults of a
// message.
class TARV_EXPORT ByteBufferStreamReader final : public ByteStreamReader {
 public:
  // The bytes stay the caller's and must outlive the reader. A null `data` is an empty range.
  ByteBufferStreamReader(const std::uint8_t* data, std::size_t size)
      : data_(data), size_(data == nullptr ? 0 : size) {}

  std::uint8_t ReadByte() override {
    if (location_ >= size_) {
      GetReports().AddInvalidRead();
      return 0;
    }
    return data_[location_++];
  }
  void ReadBytes(std::uint8_t* out, std::size_t length) override {
    const std::uint8_t* const bytes = TakeBytes(length);
    if (bytes != nullptr && length > 0) {
      std::memcpy(out, bytes, length);
    }
  }
  // May move past the end; the next read reports it. Nothing for an alignment of 0.
  void ReadAlignment(std::uint8_t alignment) override {
    if (alignment == 0) {
      return;
    }
    const std::size_t excess = location_ % alignment;
    if (excess != 0) {
      location_ += alignment - excess;
    }
  }
  std::size_t BytesLeft() const override { return location_ < size_ ? size_ - location_ : 0; }
  void ReadEmptyListAlignment(std::uint8_t alignment) override {
    if (is_padded_) {
      ReadAlignment(alignment);
    } else if (alignment != 0 && location_ % alignment != 0) {
      passed_padding_by_ = true;
    }
  }

  // The next `length` bytes, where they lie, and moves past them. Null, after the line on standard
  // error and with the position left alone, when there are fewer; also where there is no data.
  const std::uint8_t* TakeBytes(std::size_t length) {
    if (location_ > size_ || length > size_ - location_) {
      GetReports().AddInvalidRead();
      return nullptr;
    }
    location_ += length;
    return data_ + (location_ - length);
  }

 private:
  friend class internal::UnpaddedReading;

  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t location_ = 0;
  bool is_padded_ = true;  // behind the sizes of empty lists
  bool passed_padding_by_ = false;
};

}  // namespace cw

#endif  // CW_BYTE_STREAMS_H

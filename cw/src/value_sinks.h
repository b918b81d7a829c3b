// Where values are written to.
#ifndef CW_SRC_VALUE_SINKS_H
#define CW_SRC_VALUE_SINKS_H

#include <cw/internal/size_estimate.h>
#include <cw/standard_codec.h>

#include <array>
#include <cstring>
#include <string_view>

namespace cw::internal {

// Copies up to 16 bytes in two pieces of a fixed length each, which may overlap. Texts of this
// length are the commonest, and this spares them the call of memcpy.
template <class Word>
void CopyByWords(std::uint8_t* out, const std::uint8_t* data, std::size_t length) {
  Word first;
  Word last;
  std::memcpy(&first, data, sizeof(Word));
  std::memcpy(&last, data + length - sizeof(Word), sizeof(Word));
  std::memcpy(out, &first, sizeof(Word));
  std::memcpy(out + length - sizeof(Word), &last, sizeof(Word));
}

inline void CopyShort(std::uint8_t* out, const std::uint8_t* data, std::size_t length) {
  if (length >= sizeof(std::uint64_t)) {
    CopyByWords<std::uint64_t>(out, data, length);
  } else if (length >= sizeof(std::uint32_t)) {
    CopyByWords<std::uint32_t>(out, data, length);
  } else if (length >= sizeof(std::uint16_t)) {
    CopyByWords<std::uint16_t>(out, data, length);
  } else if (length == 1) {
    *out = *data;
  }
}

// Where a value is written: through the virtual operations of any serializer and any stream.
class AnySink {
 public:
  AnySink(const StandardCodecSerializer* serializer, ByteStreamWriter* stream)
      : serializer_(serializer), stream_(stream) {}

  ByteStreamWriter* GetStream() const { return stream_; }
  void PutByte(std::uint8_t byte) { stream_->WriteByte(byte); }
  bool PutShortText(std::string_view /*text*/) { return false; }
  template <std::size_t kLength>
  void PutArray(const std::array<std::uint8_t, kLength>& bytes) {
    stream_->WriteBytes(bytes.data(), kLength);
  }
  void PutDouble(double number) {
    PutByte(static_cast<std::uint8_t>(TypeByte::Double));
    Align(sizeof(number));
    PutBytes(reinterpret_cast<const std::uint8_t*>(&number), sizeof(number));
  }
  void PutBytes(const std::uint8_t* data, std::size_t length) { stream_->WriteBytes(data, length); }
  void Align(std::uint8_t alignment) { stream_->WriteAlignment(alignment); }
  void PutValue(const EncodableValue& value) { serializer_->WriteValue(value, stream_); }

 private:
  const StandardCodecSerializer* serializer_;
  ByteStreamWriter* stream_;
};

// Gathers small pieces for a buffer, which takes long pieces as fast as short ones.
class BufferGatherer {
 public:
  static constexpr std::size_t kLongestPiece = 256;

  explicit BufferGatherer(quarn::Buffer* buffer) : buffer_(buffer), flushed_(buffer->GetSize()) {}
  // Makes room for the value at once, if it is the first and not a small one.
  BufferGatherer(quarn::Buffer* buffer, const EncodableValue& value) : BufferGatherer(buffer) {
    value_ = flushed_ == 0 ? &value : nullptr;
  }
  ~BufferGatherer() = default;
  BufferGatherer(const BufferGatherer&) = delete;
  BufferGatherer& operator=(const BufferGatherer&) = delete;

  std::size_t GetSize() const { return flushed_ + length_; }

  // Room for the next `length` bytes.
  std::uint8_t* Gather(std::size_t length) {
    if (length > gathered_.size() - length_) {
      Reserve();
      Flush();
    }
    length_ += length;
    return gathered_.data() + (length_ - length);
  }

  void Write(const std::uint8_t* data, std::size_t length) {
    Reserve();
    Flush();
    buffer_->WriteBytes(data, length);
    flushed_ += length;
  }

  // To be called at the end.
  void Flush() {
    buffer_->WriteBytes(gathered_.data(), length_);
    flushed_ += length_;
    length_ = 0;
  }

 private:
  void Reserve() {
    if (value_ != nullptr) {
      buffer_->Reserve(EstimateEncodedSize(*value_));
      value_ = nullptr;
    }
  }

  quarn::Buffer* buffer_;
  const EncodableValue* value_ = nullptr;
  std::size_t flushed_;     // bytes in the buffer
  std::size_t length_ = 0;  // bytes gathered behind them
  std::array<std::uint8_t, 4096> gathered_;
};

// Where the standard serializer writes a value through one who gathers its bytes: nothing is
// virtual.
template <class Gatherer>
class DirectSink {
 public:
  DirectSink(ByteStreamWriter* stream, Gatherer* gatherer) : stream_(stream), out_(gatherer) {}

  ByteStreamWriter* GetStream() const { return stream_; }

  void PutByte(std::uint8_t byte) { *out_->Gather(1) = byte; }

  template <std::size_t kLength>
  void PutArray(const std::array<std::uint8_t, kLength>& bytes) {
    std::memcpy(out_->Gather(kLength), bytes.data(), kLength);
  }

  // A whole text value, if it is a short one.
  bool PutShortText(std::string_view text) {
    if (text.size() > kLongestShort) {
      return false;
    }
    std::uint8_t* const out = out_->Gather(2 + text.size());
    out[0] = static_cast<std::uint8_t>(TypeByte::String);
    out[1] = static_cast<std::uint8_t>(text.size());
    CopyShort(out + 2, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    return true;
  }

  // A whole value: its type, zeros up to a multiple of its size, and the number, without a question
  // of how many zeros. The number overwrites those that are too many.
  void PutDouble(double number) {
    const std::size_t zeros = ~out_->GetSize() % sizeof(number);
    std::uint8_t* const out = out_->Gather(1 + zeros + sizeof(number));
    out[0] = static_cast<std::uint8_t>(TypeByte::Double);
    std::memset(out + 1, 0, sizeof(number));
    std::memcpy(out + 1 + zeros, &number, sizeof(number));
  }

  // At least one byte.
  void PutBytes(const std::uint8_t* data, std::size_t length) {
    if (length > Gatherer::kLongestPiece) {
      out_->Write(data, length);
    } else {
      std::memcpy(out_->Gather(length), data, length);
    }
  }

  void Align(std::uint8_t alignment) {
    const std::size_t excess = out_->GetSize() % alignment;
    if (excess != 0) {
      std::memset(out_->Gather(alignment - excess), 0, alignment - excess);
    }
  }

  void PutValue(const EncodableValue& value);

 private:
  static constexpr std::size_t kLongestShort = 16;

  ByteStreamWriter* stream_;
  Gatherer* out_;
};

}  // namespace cw::internal

#endif  // CW_SRC_VALUE_SINKS_H

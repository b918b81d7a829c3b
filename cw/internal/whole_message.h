// Reads messages whose empty lists may be padded or not.
#ifndef CW_INTERNAL_WHOLE_MESSAGE_H
#define CW_INTERNAL_WHOLE_MESSAGE_H

#include <cw/byte_streams.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <optional>
#include <utility>

namespace cw::internal {

// A reading of a message that takes no empty list for padded. What it has to report is held back
// until it ends.
class UnpaddedReading {
 public:
  UnpaddedReading(const std::uint8_t* data, std::size_t size) : stream_(data, size) {
    stream_.is_padded_ = false;
    stream_.GetReports().Hold();
  }

  ByteBufferStreamReader* GetStream() { return &stream_; }

  // Whether padding in front of what followed an empty list would have made a difference.
  bool MissesPadding() const { return stream_.passed_padding_by_; }
  // Whether every byte was read, and none that is not there or not known.
  bool IsExact() { return stream_.BytesLeft() == 0 && stream_.GetReports().IsEmpty(); }

  void DropReports() { stream_.GetReports().Drop(); }

 private:
  ByteBufferStreamReader stream_;
};

// The value that `read` makes of the message, taking no empty list for padded. Empty, with nothing
// reported, when it comes out so badly that the lists must have been padded.
template <class Read>
auto ReadUnpadded(const std::uint8_t* data, std::size_t size, const Read& read)
    -> std::optional<decltype(read(std::declval<ByteBufferStreamReader*>()))> {
  UnpaddedReading reading(data, size);
  try {
    auto message = read(reading.GetStream());
    if (!reading.MissesPadding() || reading.IsExact()) {
      return message;
    }
  } catch (const std::exception&) {
    if (!reading.MissesPadding()) {
      throw;
    }
  }
  reading.DropReports();
  return std::nullopt;
}

// The value that `read` makes of the message. The format pads an empty list of items wider than a
// byte, and so do peers in Dart; this library's serializer does not, and nothing in the bytes tells
// which is the case. So the message is read as this library writes it; if that does not come out
// even, and it has such a list, once more as the format says. `read` takes a
// ByteBufferStreamReader* and begins anew each time. Only its last reading reports faults.
template <class Read>
auto ReadWholeMessage(const std::uint8_t* data, std::size_t size, const Read& read) {
  if (auto message = ReadUnpadded(data, size, read)) {
    return *std::move(message);
  }
  ByteBufferStreamReader stream(data, size);
  return read(&stream);
}

}  // namespace cw::internal

#endif  // CW_INTERNAL_WHOLE_MESSAGE_H

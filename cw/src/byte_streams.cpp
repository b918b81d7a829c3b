#include <cw/byte_streams.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>

namespace cw {

namespace {

void ReportInvalidRead() { std::cerr << "Invalid read in StandardCodecByteStreamReader\n"; }

[[noreturn]] void ThrowTooDeep(const char* action) {
  throw std::length_error("cw: cannot " + std::string(action) +
                          " a value whose lists and maps nest deeper than " +
                          std::to_string(kMaxNesting) + " levels");
}

[[noreturn]] void ThrowTooManyMadeUp() {
  throw std::length_error("cw: the message announces more than " + std::to_string(kMaxMadeUpItems) +
                          " items that its bytes do not hold; it is damaged or hostile");
}

std::size_t Shortfall(std::size_t wanted, std::size_t available) {
  return wanted > available ? wanted - available : 0;
}

}  // namespace

namespace internal {

void DecodeBudget::EnterValue() {
  // One more than the containers: the innermost one may still hold plain values.
  if (depth_ > kMaxNesting) {
    ThrowTooDeep("read");
  }
  ++depth_;
}

void DecodeBudget::CheckContainer() const {
  if (depth_ > kMaxNesting) {
    ThrowTooDeep("read");
  }
}

void DecodeBudget::Announce(std::size_t count, std::size_t item_size, std::size_t bytes_left) {
  const std::size_t missing_here = Shortfall(count, bytes_left / item_size);
  const std::size_t missing_in_all = Shortfall(announced_ + count, bytes_left);
  if (std::max(missing_here, missing_in_all) > Left()) {
    ThrowTooManyMadeUp();
  }
  announced_ += count;
}

void DecodeBudget::Begin(std::size_t item_size, std::size_t bytes_left) {
  // Where no byte is left, all that is announced has to be made up: say so before the first item.
  if (bytes_left == 0 && announced_ > Left()) {
    ThrowTooManyMadeUp();
  }
  if (bytes_left < item_size) {
    MakeUp(1);
  }
  --announced_;
}

void DecodeBudget::MakeUp(std::size_t count) {
  if (count > Left()) {
    ThrowTooManyMadeUp();
  }
  made_up_ += count;
}

}  // namespace internal

NestingScope::NestingScope(ByteStreamWriter* stream) : stream_(stream) {
  if (stream_->nesting_ >= kMaxNesting) {
    ThrowTooDeep("write");
  }
  ++stream_->nesting_;
}

std::uint8_t ByteBufferStreamReader::ReadByte() {
  if (location_ >= size_) {
    ReportInvalidRead();
    return 0;
  }
  return data_[location_++];
}

void ByteBufferStreamReader::ReadBytes(std::uint8_t* out, std::size_t length) {
  if (location_ > size_ || length > size_ - location_) {
    ReportInvalidRead();
    return;
  }
  if (length > 0) {
    std::memcpy(out, data_ + location_, length);
    location_ += length;
  }
}

void ByteBufferStreamReader::ReadAlignment(std::uint8_t alignment) {
  if (alignment == 0) {
    return;
  }
  const std::size_t excess = location_ % alignment;
  if (excess != 0) {
    location_ += alignment - excess;
  }
}

}  // namespace cw

#include <cw/internal/base64_streams.h>

namespace cw {

void Base64StreamWriter::WriteAlignment(std::uint8_t alignment) {
  const std::size_t excess = alignment == 0 ? 0 : encoder_.GetSize() % alignment;
  if (excess != 0) {
    std::memset(encoder_.Gather(alignment - excess), 0, alignment - excess);
  }
}

void Base64StreamReader::ReadBytes(std::uint8_t* out, std::size_t length) {
  if (length > BytesLeft()) {
    throw GiveUp();
  }
  const std::size_t there = std::min(length, end_ - begin_);
  std::copy_n(window_.data() + begin_, there, out);
  begin_ += there;
  const std::size_t rest = length - there;
  const std::size_t whole = rest == decoder_.GetBytesLeft() ? rest : rest / 3 * 3;
  if (!decoder_.Decode(out + there, whole)) {
    throw GiveUp();
  }
  std::copy_n(TakeBytes(rest - whole), rest - whole, out + there + whole);
}

void Base64StreamReader::ReadAlignment(std::uint8_t alignment) {
  const std::size_t excess = alignment == 0 ? 0 : (size_ - BytesLeft()) % alignment;
  if (excess != 0) {
    // Padding that is missing at the end is missed by nobody but who reads on.
    TakeBytes(std::min<std::size_t>(alignment - excess, BytesLeft()));
  }
}

Base64StreamReader::Piece Base64StreamReader::TakeUpTo(std::size_t length) {
  if (begin_ == end_) {
    DecodeMore(1);
  }
  const std::size_t count = std::min(length, end_ - begin_);
  return {TakeBytes(count), count};
}

void Base64StreamReader::CheckRest() {
  if (passed_padding_by_ && BytesLeft() != 0) {
    throw GiveUp();
  }
  while (BytesLeft() != 0) {
    TakeUpTo(BytesLeft());
  }
}

void Base64StreamReader::DecodeMore(std::size_t wanted) {
  if (wanted > BytesLeft()) {
    throw GiveUp();
  }
  std::memmove(window_.data(), window_.data() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  const std::size_t room = (window_.size() - end_) / 3 * 3;
  const std::size_t count = std::min(room, decoder_.GetBytesLeft());
  if (!decoder_.Decode(window_.data() + end_, count)) {
    throw GiveUp();
  }
  end_ += count;
}

}  // namespace cw

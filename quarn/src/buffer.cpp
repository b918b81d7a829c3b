#include <quarn/buffer.h>
#include <quarn/internal/base64.h>
#include <quarn/logger.h>
#include <quarn/sized_struct.h>

namespace quarn {

Buffer::Buffer(const std::uint8_t* data, std::size_t size) { WriteBytes(data, size); }

Buffer& Buffer::operator=(Buffer&& other) noexcept {
  if (this != &other) {
    bytes_ = std::move(other.bytes_);
    other.bytes_.clear();
  }
  return *this;
}

std::unique_ptr<std::vector<std::uint8_t>> Buffer::Extract() {
  if (bytes_.empty()) {
    return nullptr;
  }
  auto bytes = std::make_unique<std::vector<std::uint8_t>>(std::move(bytes_));
  bytes_.clear();
  return bytes;
}

void Buffer::WriteBytes(const std::uint8_t* data, std::size_t size) {
  if (data != nullptr && size != 0) {
    bytes_.insert(bytes_.end(), data, data + size);
  }
}

void Buffer::WriteAlignment(std::uint8_t alignment) {
  if (alignment == 0) {
    return;
  }
  const std::size_t excess = bytes_.size() % alignment;
  if (excess != 0) {
    bytes_.resize(bytes_.size() + alignment - excess);
  }
}

QuarnResult Buffer::ToCAPI(QuarnBufferView* view, std::size_t view_size) const {
  if (view == nullptr) {
    QUARN_LOG_ERROR() << "Structure pointer is null";
    return QUARN_RESULT_INVALID_ARGUMENT;
  }
  StructFiller<QuarnBufferView>(view, view_size)
      .Fill(&QuarnBufferView::data, GetData())
      .Fill(&QuarnBufferView::size, GetSize());
  return QUARN_RESULT_SUCCESS;
}

Buffer Buffer::FromCAPI(QuarnBufferView* view) {
  return Buffer(ReadField(view, &QuarnBufferView::data), ReadField(view, &QuarnBufferView::size));
}

std::string Buffer::ToBase64() const { return base64::EncodeToText(bytes_.data(), bytes_.size()); }

Buffer Buffer::FromBase64(const std::string& text) {
  auto bytes = base64::DecodeToBytes(text.data(), text.size());
  return bytes ? Buffer(std::move(*bytes)) : Buffer();
}

}  // namespace quarn

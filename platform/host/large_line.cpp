#include "large_line.h"

#include <quarn/internal/large_memory.h>

#include <QtCore/QObject>
#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "envelope.h"
#include "plain_text.h"
#include "support.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {
namespace {

// What a line may be longer than the one before and still find its room made at once.
constexpr std::size_t kSlack = std::size_t{64} << 10U;

// Whether nobody else holds the bytes any more.
bool IsAlone(const QByteArray& bytes) {
  if (!bytes.isDetached()) {
    return false;
  }
  // Counting up and down orders what follows behind all that the last other holder has done, on
  // whatever thread that was.
  const QByteArray counted = bytes;  // NOLINT(performance-unnecessary-copy-initialization)
  return true;
}

}  // namespace

Found FindDataEnd(std::string_view bytes, std::size_t* searched) {
  *searched += PlainPrefix(bytes.substr(*searched));
  const std::string_view tail = bytes.substr(*searched, kDataEnd.size());
  if (tail != kDataEnd.substr(0, tail.size())) {
    return Found::kOther;
  }
  return tail.size() == kDataEnd.size() ? Found::kLine : Found::kNothingYet;
}

void LargeLine::LetGoIfShared() {
  if (!IsAlone(bytes_)) {
    bytes_ = QByteArray();
    capacity_ = 0;
  }
}

bool LargeLine::Reserve(std::size_t capacity) {
  const std::size_t wanted = std::max(capacity, capacity_);
  try {
    // Large blocks are moved by the kernel's page tables, not copied.
    bytes_.reserve(static_cast<int>(wanted));
    bytes_.resize(static_cast<int>(wanted));
  } catch (const std::bad_alloc&) {
    return false;
  }
  if (wanted > capacity_) {
    quarn::ExpectFilling(bytes_.data(), wanted);
  }
  capacity_ = wanted;
  return true;
}

// A line that is large is expected to be as large as the last such line: the room for it is then
// made once instead of by doubling.
bool LargeLine::Begin(std::string_view text) {
  LetGoIfShared();
  const bool is_measured = last_size_ > text.size();
  if (!Reserve(is_measured ? last_size_ + kSlack : 2 * text.size())) {
    return false;
  }
  has_grown_ = !is_measured;
  std::memcpy(bytes_.data(), text.data(), text.size());
  size_ = text.size();
  searched_ = 0;
  is_begun_ = true;
  return true;
}

std::size_t LargeLine::MakeRoom(std::size_t wanted, std::size_t most) {
  if (size_ == capacity_) {
    has_grown_ = true;
    if (!Reserve(std::min(2 * capacity_, most))) {
      return 0;
    }
  }
  return std::min({wanted, capacity_ - size_, most - size_});
}

void LargeLine::Finish() {
  is_begun_ = false;
  KeepForAWhile();
}

QByteArray LargeLine::Share() {
  last_size_ = searched_;
  bytes_.resize(static_cast<int>(searched_));
  if (capacity_ <= kMostKept && !std::exchange(has_grown_, false)) {
    return bytes_;
  }
  capacity_ = 0;
  return std::exchange(bytes_, QByteArray());
}

QByteArray LargeLine::ShareCopy(std::string_view text) {
  LetGoIfShared();
  if (!Reserve(text.size())) {
    throw std::bad_alloc();
  }
  std::memcpy(bytes_.data(), text.data(), text.size());
  size_ = searched_ = text.size();
  KeepForAWhile();
  return Share();
}

// Where no event loop is left, the memory goes with the object.
void LargeLine::KeepForAWhile() {
  if (!HasEventLoop()) {
    return;
  }
  if (timer_ == nullptr) {
    timer_ = std::make_unique<QTimer>();
    timer_->setSingleShot(true);
    QObject::connect(timer_.get(), &QTimer::timeout, timer_.get(), [this] { OnIdle(); });
  }
  StartTimer(*timer_, kKeepTime);
}

void LargeLine::OnIdle() {
  if (is_begun_) {
    KeepForAWhile();
    return;
  }
  bytes_ = QByteArray();
  capacity_ = size_ = searched_ = 0;
}

}  // namespace RuntimeManager::host

#include "line_buffer.h"

#include <quarn/internal/large_memory.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "envelope.h"

namespace RuntimeManager::host {
namespace {

// About what a socket holds: one read empties it.
constexpr std::size_t kFirstCapacity = std::size_t{256} << 10U;
// What an idle connection keeps after a long line that was no data line.
constexpr std::size_t kKeptCapacity = std::size_t{1} << 20U;
// More than a small request has.
constexpr int kSpareCapacity = 512;

}  // namespace

bool LineBuffer::Reserve(std::size_t capacity) {
  try {
    // Large blocks are moved by the kernel's page tables, not copied.
    data_.reserve(static_cast<int>(capacity));
    data_.resize(static_cast<int>(capacity));
    quarn::ExpectFilling(data_.data(), capacity);
  } catch (const std::bad_alloc&) {
    return false;
  }
  capacity_ = capacity;
  return true;
}

void LineBuffer::MoveToFront() {
  if (begin_ > 0) {
    std::memmove(data_.data(), data_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    searched_ -= begin_;
    begin_ = 0;
  }
}

LineBuffer::Room LineBuffer::MakeRoom() {
  MoveToFront();
  if (IsFullOfDataLine()) {
    BeginLarge();
  }
  if (large_.IsBegun()) {
    return MakeLargeRoom();
  }
  const std::size_t capacity = std::max(2 * capacity_, kFirstCapacity);
  if (end_ == capacity_ && !Reserve(std::min(max_line_ + 1, capacity))) {
    return {};
  }
  return {data_.data() + end_, capacity_ - end_};
}

bool LineBuffer::IsFullOfDataLine() const {
  return end_ == capacity_ && capacity_ >= kFirstCapacity && !is_other_ &&
         searched_ >= kDataHead.size();
}

// When memory is short for it, the line goes on here, or ends the connection.
void LineBuffer::BeginLarge() {
  if (large_.Begin(Rest(kDataHead.size()))) {
    BeginLine(0);
    end_ = 0;
  }
}

// Not more at once than fits here, should it be the lines behind this one.
LineBuffer::Room LineBuffer::MakeLargeRoom() {
  const std::size_t size = large_.MakeRoom(kFirstCapacity, max_line_ + 1 - kDataHead.size());
  return size == 0 ? Room() : Room{large_.End(), size};
}

void LineBuffer::Commit(std::size_t size) {
  if (large_.IsBegun()) {
    large_.Commit(size);
  } else {
    end_ += size;
  }
}

bool LineBuffer::IsOverlong() const {
  const std::size_t size =
      large_.IsBegun() ? kDataHead.size() + large_.Bytes().size() : end_ - begin_;
  return size > max_line_;
}

void LineBuffer::BeginLine(std::size_t at) {
  begin_ = searched_ = at;
  is_other_ = false;
}

bool LineBuffer::TakeLine(Line* line) {
  if (large_.IsBegun()) {
    return TakeLarge(line);
  }
  if (begin_ == end_ && capacity_ > kKeptCapacity) {
    data_ = QByteArray();
    capacity_ = end_ = 0;
    BeginLine(0);
  }
  return is_other_ ? TakeOther(line) : TakeData(line);
}

bool LineBuffer::TakeLarge(Line* line) {
  const Found found = large_.Search();
  if (found == Found::kNothingYet) {
    return false;
  }
  large_.Finish();
  if (found == Found::kOther) {
    Refill(kDataHead, large_.Bytes());
    is_other_ = true;
    return TakeOther(line);
  }
  Refill({}, large_.Bytes().substr(large_.Text().size() + kDataEnd.size()));
  *line = {true, large_.Text()};
  return true;
}

// What came with, or as, a large line is what the buffer holds now.
void LineBuffer::Refill(std::string_view head, std::string_view rest) {
  const std::size_t size = head.size() + rest.size();
  if (size > capacity_ && !Reserve(size)) {
    throw std::bad_alloc();
  }
  std::copy(head.begin(), head.end(), data_.data());
  std::copy(rest.begin(), rest.end(), data_.data() + head.size());
  BeginLine(0);
  end_ = size;
}

Found LineBuffer::FindEnd() {
  const std::string_view head = Rest(begin_).substr(0, kDataHead.size());
  if (head != kDataHead.substr(0, head.size())) {
    return Found::kOther;
  }
  if (head.size() < kDataHead.size()) {
    return Found::kNothingYet;
  }
  const std::size_t text = begin_ + kDataHead.size();
  std::size_t searched = std::max(searched_, text) - text;
  const Found found = FindDataEnd(Rest(text), &searched);
  searched_ = text + searched;
  return found;
}

bool LineBuffer::TakeData(Line* line) {
  const Found found = FindEnd();
  if (found == Found::kOther) {
    is_other_ = true;
    return TakeOther(line);
  }
  if (found == Found::kNothingYet) {
    return false;
  }
  const std::size_t text = begin_ + kDataHead.size();
  *line = {true, Rest(text).substr(0, searched_ - text)};
  BeginLine(searched_ + kDataEnd.size());
  return true;
}

bool LineBuffer::TakeOther(Line* line) {
  const std::size_t end = Rest(searched_).find('\n');
  if (end == std::string_view::npos) {
    searched_ = end_;
    return false;
  }
  *line = {false, Rest(begin_).substr(0, searched_ + end - begin_)};
  BeginLine(searched_ + end + 1);
  return true;
}

QByteArray LineBuffer::Detach(std::string_view text) {
  if (large_.Holds(text)) {
    return large_.Share();
  }
  if (text.size() >= LargeLine::kLarge) {
    return large_.ShareCopy(text);
  }
  const auto size = static_cast<int>(text.size());
  if (size > kSpareCapacity) {
    return {text.data(), size};
  }
  QByteArray copy = std::exchange(spare_, {});
  copy.reserve(kSpareCapacity);
  copy.replace(0, copy.size(), text.data(), size);
  return copy;
}

void LineBuffer::Recycle(QByteArray&& text) {
  if (text.isDetached() && text.capacity() == kSpareCapacity) {
    spare_ = std::move(text);
  }
}

}  // namespace RuntimeManager::host

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
// What an idle connection keeps after a large line; a line of that size is worth to be detached.
constexpr std::size_t kKeptCapacity = std::size_t{1} << 20U;

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

// A line that is large is expected to be as large as the last such line: the room for it, which
// takes no memory before it is filled, is then made once instead of by doubling.
std::size_t LineBuffer::NextCapacity() const {
  if (capacity_ < kFirstCapacity) {
    return kFirstCapacity;
  }
  return std::max(2 * capacity_, last_large_ + kFirstCapacity);
}

LineBuffer::Room LineBuffer::MakeRoom() {
  if (begin_ > 0) {
    std::memmove(data_.data(), data_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    searched_ -= begin_;
    begin_ = 0;
  }
  const std::size_t most = max_line_ + 1;
  if (end_ == 0 && capacity_ > kKeptCapacity) {
    data_ = QByteArray();
    capacity_ = 0;
  }
  if (end_ == capacity_ && !Reserve(std::min(most, NextCapacity()))) {
    return {};
  }
  return {data_.data() + end_, capacity_ - end_};
}

void LineBuffer::BeginLine(std::size_t at) {
  begin_ = searched_ = at;
  is_other_ = false;
}

bool LineBuffer::TakeLine(Line* line) { return is_other_ ? TakeOther(line) : TakeData(line); }

// Looks for the end of a data line: the one search finds it, and that the text is plain.
LineBuffer::Found LineBuffer::FindDataEnd() {
  const std::string_view head = Rest(begin_).substr(0, kDataHead.size());
  if (head != kDataHead.substr(0, head.size())) {
    return Found::kOther;
  }
  if (head.size() < kDataHead.size()) {
    return Found::kNothingYet;
  }
  searched_ = std::max(searched_, begin_ + kDataHead.size());
  searched_ += PlainPrefix(Rest(searched_));
  const std::string_view tail = Rest(searched_).substr(0, kDataEnd.size());
  if (tail != kDataEnd.substr(0, tail.size())) {
    return Found::kOther;
  }
  return tail.size() == kDataEnd.size() ? Found::kLine : Found::kNothingYet;
}

bool LineBuffer::TakeData(Line* line) {
  const Found found = FindDataEnd();
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
  const int size = static_cast<int>(text.size());
  if (text.size() < kKeptCapacity) {
    return {text.data(), size};
  }
  last_large_ = text.size();
  QByteArray rest(data_.constData() + begin_, static_cast<int>(end_ - begin_));
  QByteArray detached = std::exchange(data_, std::move(rest));
  BeginLine(0);
  end_ = capacity_ = static_cast<std::size_t>(data_.size());
  std::memmove(detached.data(), text.data(), text.size());
  detached.resize(size);
  return detached;
}

}  // namespace RuntimeManager::host

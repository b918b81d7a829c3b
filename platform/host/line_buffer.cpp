#include "line_buffer.h"

#include <algorithm>
#include <cstring>

namespace RuntimeManager::host {
namespace {

// About what a socket holds: one read empties it.
constexpr std::size_t kFirstCapacity = std::size_t{256} << 10U;
// What an idle connection keeps after a large line.
constexpr std::size_t kKeptCapacity = std::size_t{1} << 20U;

}  // namespace

bool LineBuffer::Resize(std::size_t capacity) {
  // Large blocks are moved by the kernel's page tables, not copied.
  char* data = static_cast<char*>(std::realloc(data_.get(), capacity));
  if (data == nullptr) return false;
  static_cast<void>(data_.release());
  data_.reset(data);
  capacity_ = capacity;
  return true;
}

LineBuffer::Room LineBuffer::MakeRoom() {
  if (begin_ > 0) {
    std::memmove(data_.get(), data_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    searched_ -= begin_;
    begin_ = 0;
  }
  const std::size_t most = max_line_ + 1;
  if (end_ == 0 && capacity_ > kKeptCapacity) {
    data_.reset();
    capacity_ = 0;
  }
  if (end_ == capacity_ && !Resize(std::min(most, std::max(kFirstCapacity, 2 * capacity_)))) {
    return {};
  }
  return {data_.get() + end_, capacity_ - end_};
}

bool LineBuffer::TakeLine(std::string_view* line) {
  if (searched_ == end_) return false;
  const char* from = data_.get() + searched_;
  const auto* found = static_cast<const char*>(std::memchr(from, '\n', end_ - searched_));
  if (found == nullptr) {
    searched_ = end_;
    return false;
  }
  const char* start = data_.get() + begin_;
  *line = {start, static_cast<std::size_t>(found - start)};
  begin_ += line->size() + 1;
  searched_ = begin_;
  return true;
}

}  // namespace RuntimeManager::host

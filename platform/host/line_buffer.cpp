#include "line_buffer.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

namespace RuntimeManager::host {
namespace {

// About what a socket holds: one read empties it.
constexpr std::size_t kFirstCapacity = std::size_t{256} << 10U;
// What an idle connection keeps after a large line; a line of that size is worth to be detached.
constexpr std::size_t kKeptCapacity = std::size_t{1} << 20U;
// What has whole large pages inside.
constexpr std::size_t kLargeCapacity = std::size_t{4} << 20U;

// Spares hundreds of page faults for each mebibyte that will be read, where the system has large
// pages to give.
void AskForLargePages(char* data, std::size_t size) {
  if (size < kLargeCapacity) return;
  static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t before = (page - reinterpret_cast<std::uintptr_t>(data) % page) % page;
  ::madvise(data + before, (size - before) / page * page, MADV_HUGEPAGE);
}

}  // namespace

bool LineBuffer::Reserve(std::size_t capacity) {
  try {
    // Large blocks are moved by the kernel's page tables, not copied.
    data_.reserve(static_cast<int>(capacity));
    data_.resize(static_cast<int>(capacity));
    AskForLargePages(data_.data(), capacity);
  } catch (const std::bad_alloc&) {
    return false;
  }
  capacity_ = capacity;
  return true;
}

// A line that is large is expected to be as large as the last such line: the room for it, which
// takes no memory before it is filled, is then made once instead of by doubling.
std::size_t LineBuffer::NextCapacity() const {
  if (capacity_ < kFirstCapacity) return kFirstCapacity;
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
  if (end_ == capacity_ && !Reserve(std::min(most, NextCapacity()))) return {};
  return {data_.data() + end_, capacity_ - end_};
}

bool LineBuffer::TakeLine(std::string_view* line) {
  if (searched_ == end_) return false;
  const char* const start = data_.constData();
  const auto* found =
      static_cast<const char*>(std::memchr(start + searched_, '\n', end_ - searched_));
  if (found == nullptr) {
    searched_ = end_;
    return false;
  }
  *line = {start + begin_, static_cast<std::size_t>(found - start) - begin_};
  begin_ += line->size() + 1;
  searched_ = begin_;
  return true;
}

QByteArray LineBuffer::Detach(std::string_view part, QByteArray spare) {
  const int size = static_cast<int>(part.size());
  if (part.size() < kKeptCapacity) {
    spare.reserve(size);  // from then on it keeps its memory when it shrinks
    spare.resize(size);
    std::memcpy(spare.data(), part.data(), part.size());
    return spare;
  }
  last_large_ = part.size();
  QByteArray rest(data_.constData() + begin_, static_cast<int>(end_ - begin_));
  QByteArray detached = std::exchange(data_, std::move(rest));
  begin_ = searched_ = 0;
  end_ = capacity_ = static_cast<std::size_t>(data_.size());
  std::memmove(detached.data(), part.data(), part.size());
  detached.resize(size);
  return detached;
}

}  // namespace RuntimeManager::host

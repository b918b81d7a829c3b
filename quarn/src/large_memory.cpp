#include <quarn/internal/large_memory.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace quarn {
namespace {

// Memory of this size holds whole large pages, wherever it begins.
constexpr std::size_t kSmallestLargeSize = std::size_t{4} << 20U;

}  // namespace

bool IsLarge(std::size_t size) { return size >= kSmallestLargeSize; }

void ExpectFilling(void* data, std::size_t size) {
  if (!IsLarge(size)) {
    return;
  }
  static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t before = (page - reinterpret_cast<std::uintptr_t>(data) % page) % page;
  // A system without large pages refuses the advice; that is no error.
  const int error = errno;
  ::madvise(static_cast<char*>(data) + before, (size - before) / page * page, MADV_HUGEPAGE);
  errno = error;
}

}  // namespace quarn

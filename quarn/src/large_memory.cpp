#include <quarn/internal/large_memory.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace quarn {
namespace {

// What has whole large pages inside.
constexpr std::size_t kLeast = std::size_t{4} << 20U;

}  // namespace

bool IsLarge(std::size_t size) { return size >= kLeast; }

void ExpectFilling(void* data, std::size_t size) {
  if (!IsLarge(size)) {
    return;
  }
  static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const std::uintptr_t before = (page - reinterpret_cast<std::uintptr_t>(data) % page) % page;
  // A system without large pages refuses, which is no error of anybody.
  const int error = errno;
  ::madvise(static_cast<char*>(data) + before, (size - before) / page * page, MADV_HUGEPAGE);
  errno = error;
}

}  // namespace quarn

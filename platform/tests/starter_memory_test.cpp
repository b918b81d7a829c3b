// What a start costs in memory that the starter has. Not for builds with sanitizers, some of which fork
// where a program wants no copy.
#include <RuntimeManager/Task.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>
#include <stdexcept>

#include "kit.h"

namespace kit {
namespace {

// Memory of many small pages, all of them in use.
class Pages {
 public:
  Pages() {
    if (memory_ == MAP_FAILED || ::madvise(memory_, kSize, MADV_NOHUGEPAGE) != 0) {
      throw std::runtime_error("no memory");
    }
    Write();
  }
  ~Pages() { ::munmap(memory_, kSize); }
  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;

  std::size_t Count() const { return kSize / page_; }
  void Write() {
    for (std::size_t at = 0; at < kSize; at += page_) {
      ++static_cast<volatile char*>(memory_)[at];
    }
  }

 private:
  static constexpr std::size_t kSize = std::size_t{64} << 20U;
  const std::size_t page_ = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  void* const memory_ =
      ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
};

std::size_t CountFaults() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<std::size_t>(usage.ru_minflt);
}

class StarterMemory : public PlatformTest {};

// A copy of the starter for the child would make each page fault once when it is written again.
TEST_F(StarterMemory, IsNotCopiedForTheTask) {
  AddShellTask("task", "exec sleep 60");
  Pages pages;
  Task task("task");
  const std::size_t before = CountFaults();
  ExpectStarts(task);
  pages.Write();
  EXPECT_LT(CountFaults() - before, pages.Count() / 4);
}

}  // namespace
}  // namespace kit

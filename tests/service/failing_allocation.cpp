#include "failing_allocation.h"

#include <cstdlib>
#include <new>

namespace tarv::test {

thread_local int allocations_until_failure = -1;
thread_local bool failure_lasts = false;

namespace {

bool MustFail() {
  if (allocations_until_failure < 0) {
    return false;
  }
  if (allocations_until_failure > 0) {
    --allocations_until_failure;
    return false;
  }
  if (!failure_lasts) {
    allocations_until_failure = -1;
  }
  return true;
}

}  // namespace
}  // namespace tarv::test

void* operator new(std::size_t size) {
  if (!tarv::test::MustFail()) {
    if (void* const memory = std::malloc(size)) {
      return memory;
    }
  }
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

#include "allocations.h"

#include <atomic>

namespace {

std::atomic<std::size_t> allocations{0};

}  // namespace

std::size_t tarv::test::CountAllocations() { return allocations; }

extern "C" {
void* __libc_malloc(std::size_t size);                     // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(std::size_t count, std::size_t size);  // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* memory, std::size_t size);      // NOLINT(bugprone-reserved-identifier)

__attribute__((visibility("default"))) void* malloc(std::size_t size) {
  ++allocations;
  return __libc_malloc(size);
}
__attribute__((visibility("default"))) void* calloc(std::size_t count, std::size_t size) {
  ++allocations;
  return __libc_calloc(count, size);
}
__attribute__((visibility("default"))) void* realloc(void* memory, std::size_t size) {
  ++allocations;
  return __libc_realloc(memory, size);
}
}

#include "support/memory_usage.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace {

thread_local tarv::test::MemoryUsage usage;

bool IsRefused(std::size_t size) {
  if (usage.until_refusal > 0) {
    --usage.until_refusal;
    return size > usage.limit;
  }
  if (!usage.goes_on) {
    usage.until_refusal = std::numeric_limits<std::size_t>::max();
  }
  return true;
}

// Before each block: its size. Keeps the alignment that operator new promises.
constexpr std::size_t kPrefix = __STDCPP_DEFAULT_NEW_ALIGNMENT__;

}  // namespace

tarv::test::MemoryUsage& tarv::test::GetMemoryUsage() { return usage; }

void* operator new(std::size_t size) {
  auto* block = IsRefused(size) ? nullptr : static_cast<char*>(std::malloc(size + kPrefix));
  if (block == nullptr) {
    ++usage.refusals;
    throw std::bad_alloc();
  }
  *reinterpret_cast<std::size_t*>(block) = size;
  usage.held += size;
  usage.peak = std::max(usage.peak, usage.held);
  ++usage.allocations;
  return block + kPrefix;
}

void operator delete(void* pointer) noexcept {
  if (pointer != nullptr) {
    char* block = static_cast<char*>(pointer) - kPrefix;
    usage.held -= *reinterpret_cast<std::size_t*>(block);
    std::free(block);
  }
}

void operator delete(void* pointer, std::size_t /*size*/) noexcept { operator delete(pointer); }

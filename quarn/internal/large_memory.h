// Memory for large payloads.
#ifndef QUARN_INTERNAL_LARGE_MEMORY_H
#define QUARN_INTERNAL_LARGE_MEMORY_H

#include <cstddef>

namespace quarn {

// Whether so many bytes are worth the advice below.
bool IsLarge(std::size_t size);

// Tells the system that `size` bytes from `data` on, which nobody has touched yet, are about to be
// filled: it may then provide them in large pages, which spares hundreds of page faults for each
// mebibyte. Advice only, and none for sizes that are not large. The allocator may keep such pages
// for what comes there later. Any thread.
void ExpectFilling(void* data, std::size_t size);

}  // namespace quarn

#endif  // QUARN_INTERNAL_LARGE_MEMORY_H

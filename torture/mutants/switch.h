// Included first by every file that carries mutants: tells which one is switched on.
#ifndef TARV_MUTANTS_SWITCH_H
#define TARV_MUTANTS_SWITCH_H

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

// All mutants are compiled at once, each behind its number. One program then serves them all, where a
// compilation for each would take a hundred times as long.
namespace tarv_mutants {

constexpr size_t kNumbers = 1 << 20;

inline int ReadActive() {
  const char* const text = getenv("TARV_MUTANT");
  return text == nullptr ? 0 : atoi(text);
}

// A byte for each number, in a file that a test and the processes that it starts share.
inline unsigned char* MapReached() {
  const char* const path = getenv("TARV_MUTANTS_REACHED");
  const int file = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
  if (file == -1) {
    return nullptr;
  }
  void* const memory = mmap(nullptr, kNumbers, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  return memory == MAP_FAILED ? nullptr : static_cast<unsigned char*>(memory);
}

// Of each file its own, for they are read in the innermost loops.
static const int active = ReadActive();
static unsigned char* const reached = MapReached();

// Inlined also where nothing is optimised.
__attribute__((always_inline)) inline bool IsOn(int number) {
  if (reached != nullptr) {
    reached[number] = 1;
  }
  return active == number;
}

}  // namespace tarv_mutants

#endif

// How a test calls an operation by its place in a class, as a program does that was compiled
// against an older header.
#ifndef QUARN_TESTS_VIRTUAL_TABLE_H
#define QUARN_TESTS_VIRTUAL_TABLE_H

#include <cstddef>
#include <cstring>

// The function in a slot of an object's table of virtual functions. The first two slots are those
// of a virtual destructor.
template <class Function>
Function* VirtualFunction(const void* object, std::size_t slot) {
  void* const* table = nullptr;
  std::memcpy(&table, object, sizeof(table));
  return reinterpret_cast<Function*>(table[slot]);
}

#endif  // QUARN_TESTS_VIRTUAL_TABLE_H

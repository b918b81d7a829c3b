// Makes chosen allocations fail: compile failing_allocation.cpp, which replaces operator new, into
// the program.
#ifndef FAILING_ALLOCATION_H
#define FAILING_ALLOCATION_H

namespace tarv::test {

// How many allocations of this thread still succeed before one fails; -1: none fails.
extern thread_local int allocations_until_failure;

// Whether all that follow the one that fails do so, too.
extern thread_local bool failure_lasts;

// Memory that runs out after `allocations` more, for the length of a scope.
class ExhaustedMemory {
 public:
  explicit ExhaustedMemory(int allocations = 0) {
    failure_lasts = true;
    allocations_until_failure = allocations;
  }
  ~ExhaustedMemory() {
    allocations_until_failure = -1;
    failure_lasts = false;
  }
  ExhaustedMemory(const ExhaustedMemory&) = delete;
  ExhaustedMemory& operator=(const ExhaustedMemory&) = delete;
};

}  // namespace tarv::test

#endif  // FAILING_ALLOCATION_H

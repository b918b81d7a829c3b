// What must hold for every input.
#ifndef FUZZ_SUPPORT_REQUIRE_H
#define FUZZ_SUPPORT_REQUIRE_H

#include <cstdio>
#include <cstdlib>

namespace tarv::fuzz {

// Ends the process, so that the fuzzer keeps the input, when `holds` is false.
inline void Require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
  }
}

}  // namespace tarv::fuzz

#endif  // FUZZ_SUPPORT_REQUIRE_H

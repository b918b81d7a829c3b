// The seed of a property test, so that a failure can be repeated:
//
//   const std::uint64_t seed = tarv::test::TestSeed(tarv::test::NewSeed());
//   SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
#ifndef SUPPORT_SEED_H
#define SUPPORT_SEED_H

#include <cstdint>
#include <cstdlib>
#include <random>

namespace tarv::test {

// TARV_TEST_SEED from the environment, else `fallback`.
inline std::uint64_t TestSeed(std::uint64_t fallback) {
  const char* text = std::getenv("TARV_TEST_SEED");
  return text == nullptr ? fallback : std::strtoull(text, nullptr, 10);
}

// Another one at each run.
inline std::uint64_t NewSeed() { return std::random_device{}(); }

}  // namespace tarv::test

#endif  // SUPPORT_SEED_H

// What a callback does that it should not.
#ifndef TORTURE_THREADS_DEED_H
#define TORTURE_THREADS_DEED_H

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>

namespace tarv::test {

enum class Deed { kThrows, kSleeps };

inline constexpr char kThrown[] = "not now";

// The long form sleeps for five seconds.
inline std::chrono::milliseconds Sleep() {
  return std::chrono::milliseconds(std::getenv("TARV_TORTURE") != nullptr ? 5000 : 200);
}

inline void Do(Deed deed) {
  if (deed == Deed::kThrows) {
    throw std::runtime_error(kThrown);
  }
  std::this_thread::sleep_for(Sleep());
}

// For the names of tests.
inline std::string NameOf(const std::string& callback, Deed deed) {
  return callback + (deed == Deed::kThrows ? "Throws" : "Sleeps");
}

}  // namespace tarv::test

#endif  // TORTURE_THREADS_DEED_H

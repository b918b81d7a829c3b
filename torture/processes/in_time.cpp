#include "in_time.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "kit/program.h"
#include "kit/surroundings.h"

namespace tarv::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kLimit(2000);
constexpr int kLives = 5;

milliseconds TimeOfALife() {
  const RuntimeFolder elsewhere;
  const auto begin = Clock::now();
  Program life({MOURNER_PROGRAM});
  EXPECT_EQ(life.Wait(), 0) << "not even an undisturbed life ends well: " << life.GetError();
  return std::chrono::ceil<milliseconds>(Clock::now() - begin);
}

}  // namespace

bool IsOverInTime(const WaitUpTo& wait, milliseconds grace) {
  const auto begin = Clock::now();
  if (wait(kLimit + grace)) {
    return true;
  }
  const milliseconds life = TimeOfALife();
  const auto end = begin + kLimit + grace + kLives * life;
  const auto rest = std::chrono::ceil<milliseconds>(end - Clock::now());
  return wait(std::max(rest, milliseconds(0)));
}

}  // namespace tarv::test

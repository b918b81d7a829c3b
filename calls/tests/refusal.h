// Has memory run out in the middle of what the layer does.
#ifndef CALLS_TESTS_REFUSAL_H
#define CALLS_TESTS_REFUSAL_H

#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <new>
#include <string>
#include <thread>

#include "support/memory_usage.h"

namespace tarv::test {

// What came of an act that met a refusal.
struct Met {
  bool goes_on;      // it was not the only one
  bool threw;        // std::bad_alloc
  bool was_refused;  // false when the act took less memory than that
};

// Has the act's allocation of this number refused, and perhaps each later one.
template <class Act>
Met Meet(std::size_t number, bool goes_on, const Act& act) {
  constexpr auto kNever = std::numeric_limits<std::size_t>::max();
  MemoryUsage& usage = GetMemoryUsage();
  Met met{goes_on, false, false};
  usage.refusals = 0;
  usage.goes_on = goes_on;
  usage.until_refusal = number;
  try {
    act();
  } catch (const std::bad_alloc&) {
    met.threw = true;
  }
  usage.until_refusal = kNever;
  met.was_refused = usage.refusals > 0;
  return met;
}

// On this thread, where the loop is, or on another one.
enum class Where { kHere, kOnAThread };

// Has each allocation of `act` refused in its turn, alone and with all that follow it; each time in a
// new world, of which `check` then asks what came of it.
template <class World, class Act, class Check>
void RefuseEach(Where where, const Act& act, const Check& check) {
  for (const bool goes_on : {false, true}) {
    Met met{goes_on, false, true};
    for (std::size_t number = 0; met.was_refused; ++number) {
      SCOPED_TRACE("refused: allocation " + std::to_string(number) +
                   (goes_on ? " and all that follow" : ""));
      World world;
      const auto meet = [&] { met = Meet(number, goes_on, [&] { act(world); }); };
      if (where == Where::kHere) {
        meet();
      } else {
        std::thread(meet).join();
      }
      EXPECT_TRUE(met.was_refused || !met.threw);
      check(world, met);
      if (testing::Test::HasFailure()) {
        return;  // the first one says enough
      }
    }
  }
}

template <class World, class Act, class Check>
void RefuseEach(const Act& act, const Check& check) {
  RefuseEach<World>(Where::kHere, act, check);
}

}  // namespace tarv::test

#endif  // CALLS_TESTS_REFUSAL_H

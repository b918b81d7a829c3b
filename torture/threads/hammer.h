// Eight threads that make moves of a list in random order.
#ifndef TORTURE_THREADS_HAMMER_H
#define TORTURE_THREADS_HAMMER_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/seed.h"

namespace tarv::torture {

inline constexpr int kThreads = 8;

inline int CountOfMoves() { return std::getenv("TARV_TORTURE") != nullptr ? 100'000 : 1'500; }

using Random = std::mt19937;
using Move = std::function<void(Random&)>;

// A thing that any thread may take, put or replace. What it held dies outside its lock.
template <class T>
class Shared {
 public:
  std::shared_ptr<T> Get() const {
    const std::lock_guard lock(mutex_);
    return value_;
  }
  std::shared_ptr<T> Swap(std::shared_ptr<T> value) {
    const std::lock_guard lock(mutex_);
    value_.swap(value);
    return value;
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<T> value_;
};

// Each thread has an order of its own.
inline void Hammer(const std::vector<Move>& moves, int count = CountOfMoves()) {
  const std::uint64_t seed = test::TestSeed(test::NewSeed());
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&moves, seed, i, count] {
      Random random(static_cast<std::uint32_t>(seed) + static_cast<std::uint32_t>(i));
      for (int n = 0; n < count; ++n) {
        moves[random() % moves.size()](random);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

}  // namespace tarv::torture

#endif  // TORTURE_THREADS_HAMMER_H

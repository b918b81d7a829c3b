// Many calls at a time, ended in every way.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <string>
#include <thread>

#include "fixture.h"
#include "support/seed.h"

namespace {

using counting::kNext;
using tarv::CallOptions;
using tarv::NameOf;
using tarv::Outcome;
using tarv::Request;
using namespace std::chrono_literals;

constexpr int kCalls = 10000;
constexpr int kShare = 100;  // of the calls, one in so many is cancelled, one times out

// What each of the calls ended with, and how often each of them ended.
struct Ends {
  void Add(std::size_t call, const Outcome<std::int32_t>& outcome) {
    ++times.at(call);
    ++reasons[outcome ? "kValue" : std::string(NameOf(outcome.GetError().GetReason()))];
  }

  std::vector<int> times = std::vector<int>(kCalls);
  std::map<std::string, std::uint64_t> reasons;
};

class Storm : public tarv::test::CallsTest {
 protected:
  Storm() {
    service_->On(kNext, [this](const Request<std::int32_t>& request) { kept_.push_back(request); });
  }

  void Call(std::size_t number) {
    const bool late = number % kShare == 1;
    const auto call = caller_->Call(kNext, CallOptions().Timeout(late ? 1s : 30s));
    call.Then([this, number](const Outcome<std::int32_t>& outcome) { ends_.Add(number, outcome); });
    if (number % kShare == 2) {
      cancelled_.push_back(call);
    }
  }

  std::vector<Request<std::int32_t>> kept_;
  std::vector<tarv::Call<std::int32_t>> cancelled_;
  Ends ends_;
};

TEST_F(Storm, EndsEveryCallOnceAndCountsThemAll) {
  const std::uint64_t seed = tarv::test::TestSeed(tarv::test::NewSeed());
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (std::size_t i = 0; i < kCalls; ++i) {
    Call(i);
  }
  link_.Pump();
  ASSERT_EQ(kept_.size(), std::size_t{kCalls});
  std::shuffle(kept_.begin(), kept_.end(), random);
  // Half of the answers are on their way when a second is over, and the deadlines with it.
  for (std::size_t i = 0; i < kept_.size(); ++i) {
    kept_[i].Answer(1);
    if (i % kShare == 0 && !cancelled_.empty()) {
      cancelled_.back().Cancel();
      cancelled_.pop_back();
    }
    if (i == kept_.size() / 2) {
      link_.loop->Advance(1s);
    }
  }
  kept_.clear();
  link_.Pump();
  EXPECT_EQ(std::count(ends_.times.begin(), ends_.times.end(), 1), kCalls);
  EXPECT_GT(ends_.reasons["kCancelled"], 0U);
  EXPECT_GT(ends_.reasons["kTimedOut"], 0U);
  EXPECT_EQ(ends_.reasons["kValue"] + ends_.reasons["kCancelled"] + ends_.reasons["kTimedOut"],
            std::uint64_t{kCalls});
  const tarv::MethodMetrics metrics = caller_->GetMetrics().methods.at("next");
  EXPECT_EQ(metrics.calls, std::uint64_t{kCalls});
  EXPECT_EQ(metrics.most_in_flight, std::uint64_t{kCalls});
  EXPECT_EQ(metrics.in_flight, 0U);
  EXPECT_EQ(metrics.ends, ends_.reasons);
  EXPECT_EQ(service_->GetMetrics().methods.at("next").in_flight, 0U);
}

// Callers on four threads, handlers on four others, and the loop between them.
TEST_F(Storm, EndsTheCallsOfManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kEach = 300;
  tarv::Workers workers(kThreads);
  service_->On(kNext, workers, [] { return 1; });
  std::atomic<int> ended{0};
  std::atomic<int> running{kThreads};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int j = 0; j < kEach; ++j) {
        const auto call = caller_->Call(kNext);
        if (j % 10 == 0) {
          call.Cancel();
        }
        call.Wait();
        ++ended;
      }
      --running;
    });
  }
  while (running > 0) {
    link_.Pump();
    std::this_thread::yield();
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  link_.Pump();
  EXPECT_EQ(ended, kThreads * kEach);
  EXPECT_EQ(caller_->GetMetrics().methods.at("next").in_flight, 0U);
}

}  // namespace

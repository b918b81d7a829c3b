// What the layer adds to a request in memory allocations: a figure that is the same on every
// machine.
#include "end_to_end/allocations.h"

#include <gtest/gtest.h>
#include <tarv/calls/caller.h>

#include <QEventLoop>
#include <functional>
#include <memory>
#include <stdexcept>

#include "cost.h"
#include "end_to_end/application.h"

namespace tarv::test {
namespace {

constexpr std::size_t kRequests = 500;
constexpr std::size_t kGrowth = 50;  // of buffers and tables, which not every request takes
constexpr std::size_t kMost = 4;     // more for a typed call than for a plain request

struct Count {
  std::size_t application;
  std::size_t task;
};

class CostOfACall : public EndToEndTest {
 protected:
  // Makes kRequests, each from inside the answer to the one before.
  Count Measure(const std::function<void(const std::function<void()>& on_answer)>& send) {
    Run(send);  // buffers and tables grow to their size
    const std::size_t task_before = AskTask();
    const std::size_t before = CountAllocations();
    Run(send);
    const std::size_t here = CountAllocations() - before;
    return {here, AskTask() - task_before};
  }

  std::shared_ptr<vorpc::IClient> client_ = manager_wrapper_->CreateIpcClient("calls_counter");
  Caller caller_{client_};

 private:
  static void Run(const std::function<void(const std::function<void()>&)>& send) {
    std::size_t count = kRequests;
    QEventLoop loop;
    const std::function<void()> on_answer = [&] { --count > 0 ? send(on_answer) : loop.quit(); };
    send(on_answer);
    loop.exec();
  }
  std::size_t AskTask() {
    std::optional<Outcome<std::int64_t>> answer;
    QEventLoop loop;
    caller_.Call(cost::kCountAllocations).Then([&](Outcome<std::int64_t> outcome) {
      answer.emplace(std::move(outcome));
      loop.quit();
    });
    loop.exec();
    return static_cast<std::size_t>(std::move(*answer).Take());
  }
};

TEST_F(CostOfACall, IsAtMostFourAllocationsMoreInEachProcess) {
  const Count plain = Measure([this](const std::function<void()>& on_answer) {
    client_->SendRequest("plain", cw::EncodableMap{{"n", 1}}, [&on_answer](const auto& response) {
      EXPECT_EQ(*response.GetResult()->template Find<std::int32_t>("n"), 1);
      on_answer();
    });
  });
  const Count typed = Measure([this](const std::function<void()>& on_answer) {
    caller_.Call(cost::kTyped, {1}).Then([&on_answer](const Outcome<cost::Number>& outcome) {
      EXPECT_EQ(outcome->n, 1);
      on_answer();
    });
  });
  EXPECT_GT(plain.application, kRequests);
  EXPECT_GT(plain.task, kRequests);
  EXPECT_LE(typed.application, plain.application + kMost * kRequests + kGrowth);
  EXPECT_LE(typed.task, plain.task + kMost * kRequests + kGrowth);
}

}  // namespace
}  // namespace tarv::test

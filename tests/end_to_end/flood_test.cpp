// Requests, answers and notifications of many threads at once.

#include <RuntimeManager/Error.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "application.h"
#include "numbered.h"

namespace tarv::test {
namespace {

using testing::Each;
using testing::Le;
using testing::SizeIs;
using vorpc::Message;

constexpr std::chrono::milliseconds kPause(200);
// Under the thread sanitizer, on a machine that has much else to do.
constexpr std::chrono::minutes kLongPatience(8);

// Requests, answers and notifications, of each so many.
int Messages() {
  const char* const wanted = std::getenv("TARV_TEST_MESSAGES");
  return wanted != nullptr ? std::atoi(wanted) : 100'000;
}

// Eight threads that call a function with the thread's number.
class Threads {
 public:
  explicit Threads(const std::function<void(int)>& run) {
    for (int thread = 0; thread < kThreads; ++thread) {
      threads_.emplace_back(run, thread);
    }
  }
  ~Threads() { Join(); }
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

  void Join() {
    for (std::thread& thread : threads_) {
      thread.join();
    }
    threads_.clear();
  }

 private:
  std::vector<std::thread> threads_;
};

// What came of numbered messages.
class Account {
 public:
  explicit Account(int of_each) : calls_(static_cast<std::size_t>(of_each) * kThreads) {}

  void Note(int thread, int number) {
    ++calls_[static_cast<std::size_t>(number) * kThreads + static_cast<std::size_t>(thread)];
    ++count_;
  }
  int Count() const { return count_; }
  // How often each came.
  std::vector<int> Calls() const { return {calls_.begin(), calls_.end()}; }

 private:
  std::vector<std::atomic<int>> calls_;
  std::atomic<int> count_{0};
};

class Crowded : public EndToEndTest {
 protected:
  // Makes notes of the task's notifications, which come from each of its threads in order.
  void Count(Connection& connection, Account& account) {
    connection.client->OnNotify(
        "number", [this, &account](const Message::Notification& notification) {
          const std::int64_t value = notification.params.AsInt64().value_or(-1);
          const auto thread = static_cast<std::size_t>(value / kMostOfOne) % kThreads;
          const int number = static_cast<int>(value % kMostOfOne);
          out_of_order_ += next_.at(thread)++ == number ? 0 : 1;
          account.Note(static_cast<int>(thread), number);
        });
  }

  std::array<int, kThreads> next_{};
  int out_of_order_ = 0;
};

TEST_F(Crowded, ConversationLosesNothingAndKeepsTheOrderOfEachThread) {
  const int of_each = Messages() / kThreads;
  Account answers(of_each);
  Account notifications(of_each);
  std::atomic<int> wrong{0};
  const auto connection = StartConnected("pool");
  Count(*connection, notifications);
  connection->client->SendNotify("send", of_each);
  connection->client->SendNotify("pause", std::int64_t{kPause.count()});
  Threads threads([&](int thread) {
    for (int number = 0; number < of_each; ++number) {
      connection->client->SendRequest(
          "work", Number(thread, number),
          [&answers, &wrong, thread, number](const Response& response) {
            wrong += !response.IsError() && *response.GetResult() == Number(thread, number) ? 0 : 1;
            answers.Note(thread, number);
          });
    }
  });
  // Nobody reads here either.
  std::this_thread::sleep_for(kPause);
  const int all = of_each * kThreads;
  EXPECT_TRUE(WaitUntil([&] { return answers.Count() == all && notifications.Count() == all; },
                        kLongPatience))
      << answers.Count() << " answers and " << notifications.Count() << " notifications of " << all;
  threads.Join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(out_of_order_, 0);
  EXPECT_THAT(answers.Calls(), Each(1));
  EXPECT_THAT(notifications.Calls(), Each(1));
}

TEST_F(Crowded, ConversationOfATaskThatIsKilledAnswersEveryRequestOnce) {
  constexpr int kMost = 100'000;   // of each thread; the task is dead long before
  const int of_task = Messages();  // the same; answers wait behind them
  const int most_in_flight = Messages() / 20;
  constexpr int kAfterwards = 100;
  Account answers(kMost);
  Account notifications(of_task);
  std::atomic<int> asked{0};
  std::atomic<int> failed{0};
  std::atomic<int> strange{0};
  const auto connection = StartConnected("pool");
  Count(*connection, notifications);
  connection->client->SendNotify("send", of_task);
  const auto ask = [&](int thread, int number) {
    connection->client->SendRequest("work", 1, [&, thread, number](const Response& response) {
      if (const Message::Error* const error = response.GetError()) {
        ++failed;
        strange += error->code == RuntimeManager::Error::kTaskKilled ? 0 : 1;
      }
      answers.Note(thread, number);
    });
  };
  Threads threads([&](int thread) {
    int afterwards = 0;
    for (int number = 0; number < kMost && afterwards < kAfterwards; ++number) {
      afterwards += connection->client->HasConnectionFailed() ? 1 : 0;
      if (asked++ - answers.Count() > most_in_flight) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      ask(thread, number);
    }
  });
  const int enough = Messages() / 100;
  EXPECT_TRUE(WaitUntil([&] { return answers.Count() > enough && notifications.Count() > enough; },
                        kLongPatience));
  ASSERT_THAT(Children(), SizeIs(1));
  kill(Children().front(), SIGKILL);
  EXPECT_TRUE(connection->WaitForDisconnected());
  threads.Join();
  EXPECT_TRUE(WaitUntil([&] { return answers.Count() == asked; }))
      << answers.Count() << " of " << asked;
  EXPECT_THAT(answers.Calls(), Each(Le(1)));
  EXPECT_GE(failed, kThreads * kAfterwards);
  EXPECT_EQ(strange, 0);
  EXPECT_EQ(out_of_order_, 0);
  EXPECT_THAT(connection->record->disconnected, SizeIs(1));
}

}  // namespace
}  // namespace tarv::test

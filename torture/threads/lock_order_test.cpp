#include "support/lock_order.h"

#include <gtest/gtest.h>
#include <quarn/internal/calls_out.h>
#include <vorpc/client.h>

#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <thread>

// The checker that every program built with tests carries: tests/support/lock_order.cpp.

namespace {

// One before the other, as two functions of one class might take them.
template <class First, class Second>
void TakeBoth(First& first, Second& second) {
  const std::unique_lock outer(first);
  const std::unique_lock inner(second);
}

class LockOrder : public testing::Test {};

using LockOrderDeathTest = LockOrder;

constexpr char kCircle[] = "locks are taken in a circle";

TEST_F(LockOrderDeathTest, NamesBothSidesOfACircleThoughNoThreadsMeet) {
  std::mutex a;
  std::mutex b;
  TakeBoth(a, b);
  EXPECT_DEATH(TakeBoth(b, a),
               "in a circle(.|\n)*now, with (.|\n)*TakeBoth(.|\n)*earlier, with (.|\n)*TakeBoth|"
               "in a circle(.|\n)*now, with (.|\n)*threads_torture(.|\n)*earlier, with "
               "(.|\n)*threads_torture");
}

TEST_F(LockOrderDeathTest, FindsACircleOfThreeLocksOfThreeThreads) {
  std::mutex a;
  std::shared_mutex b;
  std::recursive_mutex c;
  std::thread([&] { TakeBoth(a, b); }).join();
  std::thread([&] { TakeBoth(b, c); }).join();
  EXPECT_DEATH(TakeBoth(c, a), kCircle);
}

TEST_F(LockOrderDeathTest, FindsACircleOfReaders) {
  std::shared_mutex a;
  std::mutex b;
  {
    const std::shared_lock outer(a);
    const std::lock_guard inner(b);
  }
  EXPECT_DEATH(
      {
        const std::lock_guard outer(b);
        const std::shared_lock inner(a);
      },
      kCircle);
}

TEST_F(LockOrderDeathTest, FindsACircleThroughALockOfTheLibrary) {
  std::mutex mine;
  std::optional<vorpc::Message::ID> handshake;
  const auto client = vorpc::IOwnedClient::Create([&](vorpc::Message&& message) {
    const std::lock_guard inner(mine);
    if (const auto* const request = message.GetRequest()) {
      handshake = request->id;
    }
  });
  client->Run();
  client->SetStarted();
  client->Receive(vorpc::Message::CreateResponse(handshake.value(), {}));
  client->SendNotify("first", {});  // takes the queue's lock, then mine
  EXPECT_DEATH(
      {
        const std::lock_guard outer(mine);
        client->SendNotify("second", {});
      },
      kCircle);
}

TEST_F(LockOrder, AllowsWhatOnlyTries) {
  std::mutex a;
  std::mutex b;
  TakeBoth(a, b);
  const std::lock_guard outer(b);
  const std::unique_lock inner(a, std::try_to_lock);
  EXPECT_TRUE(inner.owns_lock());
}

TEST_F(LockOrder, AllowsALockThatIsTakenOnceMoreByItsHolder) {
  std::recursive_mutex a;
  std::mutex b;
  const std::lock_guard outer(a);
  TakeBoth(b, a);
  TakeBoth(a, b);
}

TEST_F(LockOrder, ForgetsALockWithItsMemory) {
  std::mutex a;
  const std::size_t before = tarv_lock_orders();
  for (int i = 0; i < 100; ++i) {
    auto b = std::make_unique<std::mutex>();
    if (i % 2 == 0) {
      TakeBoth(a, *b);
    } else {
      TakeBoth(*b, a);
    }
  }
  EXPECT_EQ(tarv_lock_orders(), before);
}

TEST_F(LockOrder, KnowsWhatAThreadHolds) {
  std::mutex a;
  std::shared_mutex b;
  const std::lock_guard outer(a);
  const std::shared_lock inner(b);
  EXPECT_EQ(tarv_locks_held(), 2U);
  std::thread([] { EXPECT_EQ(tarv_locks_held(), 0U); }).join();
}

TEST_F(LockOrderDeathTest, NamesALockUnderWhichACallbackIsAboutToRun) {
  std::mutex a;
  EXPECT_DEATH(
      {
        const std::lock_guard lock(a);
        quarn::details::CallsOut("a callback of this test");
      },
      "with a lock held: a callback of this test(.|\n)*was taken by:\n.*threads_torture");
}

TEST_F(LockOrder, AllowsDeliveriesOfTwoEndsToNestBothWays) {
  std::recursive_mutex client;
  std::recursive_mutex server;
  TakeBoth(client, server);
  TakeBoth(server, client);
}

TEST_F(LockOrder, LetsACallbackRunUnderARecursiveLock) {
  std::recursive_mutex queue;
  const std::lock_guard lock(queue);
  quarn::details::CallsOut("a callback of this test");
}

}  // namespace

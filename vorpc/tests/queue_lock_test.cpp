// A program of its own: it lets another thread in between two locks of the receiver's queue.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "receiver.h"

namespace {

// Called by this thread before it takes its next mutex but one.
thread_local std::function<void()> before_second_lock;
thread_local int locks = 0;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker wants these names
extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  if (before_second_lock && ++locks == 2) {
    std::exchange(before_second_lock, nullptr)();
  }
  return __real_pthread_mutex_lock(mutex);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace vorpc::details {
namespace {

Message Notice(std::string_view method) { return Message::CreateNotification(method, {}); }

TEST(Receiver, LetsNoMessageOvertakeTheQueueThatBeginsToFlow) {
  std::vector<std::string> log;
  Receiver receiver({}, [&log](const Message& message) {
    log.push_back(message.GetNotification()->method);
    return true;
  });
  receiver.Receive(Notice("first"));
  bool came = false;
  before_second_lock = [&] {
    std::thread([&] {
      receiver.Receive(Notice("second"));
      came = true;
    }).join();
  };
  receiver
      .SetQueueEnabled();  // lets the queue flow under one lock, and takes from it under another
  EXPECT_TRUE(came);
  EXPECT_THAT(log, testing::ElementsAre("first", "second"));
}

}  // namespace
}  // namespace vorpc::details

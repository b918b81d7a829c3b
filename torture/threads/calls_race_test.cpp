// Races of the layer of calls, brought about one by one: a program of its own, which steps in between
// two locks of one thread.
#include <gtest/gtest.h>
#include <pthread.h>
#include <tarv/calls/caller.h>
#include <tarv/calls/service.h>

#include <functional>
#include <memory>
#include <utility>

#include "calls/tests/link.h"
#include "calls/tests/values.h"

namespace {

// Called by this thread before it takes its next mutex.
thread_local std::function<void()> before_lock;

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker wants these names
extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);

// Visible, because with sanitizers the linker wants it for libraries, too.
__attribute__((visibility("default"))) int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
  if (const auto step = std::exchange(before_lock, nullptr)) {
    step();
  }
  return __real_pthread_mutex_lock(mutex);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace tarv::test {
namespace {

// The destructor of a Service finds another one in its place when a thread has asked for it meanwhile.
TEST(ServiceRace, LeavesTheEntryOfTheServiceThatCameMeanwhile) {
  const Link link;
  auto first = Service::For(link.server, link.loop);
  std::shared_ptr<Service> second;
  before_lock = [&] { second = Service::For(link.server, link.loop); };
  first.reset();
  ASSERT_TRUE(second);
  EXPECT_EQ(Service::For(link.server, link.loop), second);
}

}  // namespace
}  // namespace tarv::test

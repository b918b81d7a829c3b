#include "watched.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <ctime>

namespace {

constexpr int kPerSecond = 1000;
constexpr long kNsPerMs = 1000000;

std::atomic<std::size_t> watched{0};

}  // namespace

std::size_t tarv::test::CountWatched() { return watched; }

// Event loops wait by one or the other, as Qt was built.
extern "C" {
__attribute__((visibility("default"))) int ppoll(pollfd* descriptors, nfds_t count,
                                                 const timespec* time, const sigset_t* signals) {
  watched += count;
  timespec left = time != nullptr ? *time : timespec();  // the kernel writes to it
  return static_cast<int>(::syscall(SYS_ppoll, descriptors, count,
                                    time != nullptr ? &left : nullptr, signals, _NSIG / 8));
}
__attribute__((visibility("default"))) int poll(pollfd* descriptors, nfds_t count, int time) {
  const timespec left{time / kPerSecond, time % kPerSecond * kNsPerMs};
  return ::ppoll(descriptors, count, time >= 0 ? &left : nullptr, nullptr);
}
}

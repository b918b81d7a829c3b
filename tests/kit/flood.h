// Threads that all send at once, for tests of what happens to them.
#ifndef KIT_FLOOD_H
#define KIT_FLOOD_H

#include <tarv/tarv_capi.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace tarv::test {

// Eight threads, each of which sends until it is refused, or gives up after a minute.
class Flood {
 public:
  using Send = std::function<QuarnResult()>;

  Flood() = default;
  ~Flood() { Join(); }
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;

  // `send` is called by all threads, until Join returns.
  void Start(const Send& send);

  // Waits until a good many messages are on the road. No thread is done by then.
  void WaitUntilItFlows() const;

  // Waits for all threads and says how they ended: "refused 8, gave up 0, otherwise 0".
  std::string Join();

 private:
  static constexpr int kThreads = 8;
  static constexpr int kFlows = 1'000;
  // A thread's first messages go as fast as it can. Then it slows down, so that no queue overflows
  // however long a busy machine lets the test wait.
  static constexpr int kFastMessages = 20'000;
  static constexpr std::chrono::microseconds kSlowPause{200};
  static constexpr std::chrono::seconds kPatience{60};

  void SendUntilRefused(const Send& send);

  std::vector<std::thread> threads_;
  std::atomic<int> sent_{0};
  std::atomic<int> refused_{0};
  std::atomic<int> gave_up_{0};
  std::atomic<int> otherwise_{0};
};

}  // namespace tarv::test

#endif  // KIT_FLOOD_H

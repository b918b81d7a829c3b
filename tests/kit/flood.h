// Threads that all send at once, for tests of what happens to them.
#ifndef KIT_FLOOD_H
#define KIT_FLOOD_H

#include <tarv/tarv_capi.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace tarv::test {

// Eight threads, each of which sends until it is refused, or has sent its share.
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

  // Waits for all threads and says how they ended: "refused 8, done 0, otherwise 0".
  std::string Join();

 private:
  static constexpr int kThreads = 8;
  // So much that no thread is done before the test is, and so little that no queue overflows.
  static constexpr int kShare = 200'000;
  static constexpr int kFlows = 1'000;

  void SendShare(const Send& send);

  std::vector<std::thread> threads_;
  std::atomic<int> sent_{0};
  std::atomic<int> refused_{0};
  std::atomic<int> done_{0};
  std::atomic<int> otherwise_{0};
};

}  // namespace tarv::test

#endif  // KIT_FLOOD_H

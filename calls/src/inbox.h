// Functions that wait for a loop's thread, and that their owner can run before it.
#ifndef TARV_CALLS_SRC_INBOX_H
#define TARV_CALLS_SRC_INBOX_H

#include <tarv/calls/loop.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

namespace tarv::details {

// Runs what it is given in order on the loop's thread. Unlike the loop itself, it can be drained by
// an owner that ends. Any thread, but for Drain and Close, which belong to the loop's.
class Inbox {
 public:
  explicit Inbox(std::shared_ptr<Loop> loop) : loop_(std::move(loop)) {}

  // After Close, the loop alone runs the function, or destroys it. What the loop throws, for want of
  // memory above all, comes out, and the function is gone.
  void Add(Loop::Function function);
  bool IsEmpty() const { return state_->IsEmpty(); }
  void Drain() {
    while (state_->RunFirst()) {
    }
  }
  // False when there is something to drain first.
  bool Close() { return state_->Close(); }

 private:
  class State {
   public:
    // Its number; 0 when closed: the function is still there.
    std::uint64_t Add(Loop::Function& function);
    // False when it has run, or runs.
    bool TakeBack(std::uint64_t number);
    bool IsEmpty() const;
    // False when there is none.
    bool RunFirst();
    bool Close();

   private:
    struct Entry {
      std::uint64_t number;
      Loop::Function function;
    };

    bool TakeFirst(Loop::Function& function);

    mutable std::mutex mutex_;
    std::deque<Entry> entries_;
    std::uint64_t number_ = 0;
    bool closed_ = false;
  };

  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_INBOX_H

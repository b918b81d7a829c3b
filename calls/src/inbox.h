// Functions that wait for a loop's thread, and that their owner can run before it.
#ifndef TARV_CALLS_SRC_INBOX_H
#define TARV_CALLS_SRC_INBOX_H

#include <tarv/calls/loop.h>

#include <deque>
#include <memory>
#include <mutex>

namespace tarv::details {

// Runs what it is given in order on the loop's thread. Unlike the loop itself, it can be drained by
// an owner that ends. Any thread, but for Drain and Close, which belong to the loop's.
class Inbox {
 public:
  explicit Inbox(std::shared_ptr<Loop> loop) : loop_(std::move(loop)) {}

  // After Close, the loop alone runs the function, or destroys it.
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
    // False when closed: the function is still there.
    bool Add(Loop::Function& function);
    bool IsEmpty() const;
    // False when there is none.
    bool RunFirst();
    bool Close();

   private:
    bool TakeFirst(Loop::Function& function);

    mutable std::mutex mutex_;
    std::deque<Loop::Function> functions_;
    bool closed_ = false;
  };

  const std::shared_ptr<Loop> loop_;
  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_INBOX_H

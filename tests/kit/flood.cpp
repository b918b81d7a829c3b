#include "flood.h"

namespace tarv::test {

void Flood::Start(const Send& send) {
  for (int i = 0; i < kThreads; ++i) {
    threads_.emplace_back([this, send] { SendShare(send); });
  }
}

void Flood::SendShare(const Send& send) {
  for (int i = 0; i < kShare; ++i) {
    const QuarnResult result = send();
    if (result != QUARN_RESULT_SUCCESS) {
      ++(result == QUARN_RESULT_REFUSED ? refused_ : otherwise_);
      return;
    }
    ++sent_;
  }
  ++done_;
}

void Flood::WaitUntilItFlows() const {
  while (sent_ < kFlows) {
    std::this_thread::yield();
  }
}

std::string Flood::Join() {
  for (auto& thread : threads_) {
    thread.join();
  }
  threads_.clear();
  return "refused " + std::to_string(refused_) + ", done " + std::to_string(done_) +
         ", otherwise " + std::to_string(otherwise_);
}

}  // namespace tarv::test

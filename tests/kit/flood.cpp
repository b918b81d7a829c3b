#include "flood.h"

namespace tarv::test {

void Flood::Start(const Send& send) {
  for (int i = 0; i < kThreads; ++i) {
    threads_.emplace_back([this, send] { SendUntilRefused(send); });
  }
}

void Flood::SendUntilRefused(const Send& send) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (int i = 0; std::chrono::steady_clock::now() < deadline; ++i) {
    const QuarnResult result = send();
    if (result != QUARN_RESULT_SUCCESS) {
      ++(result == QUARN_RESULT_REFUSED ? refused_ : otherwise_);
      return;
    }
    ++sent_;
    if (i >= kFastMessages) {
      std::this_thread::sleep_for(kSlowPause);
    }
  }
  ++gave_up_;
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
  return "refused " + std::to_string(refused_) + ", gave up " + std::to_string(gave_up_) +
         ", otherwise " + std::to_string(otherwise_);
}

}  // namespace tarv::test

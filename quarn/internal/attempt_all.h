// Steps that are all owed, whatever one of them throws.
//
//   AttemptAll([&callback] { callback(); }, [&cache, chunk] { cache.RemoveChunk(chunk); });
//
// takes both, in this order; what the callback throws reaches the caller once the chunk is gone.
#ifndef QUARN_INTERNAL_ATTEMPT_ALL_H
#define QUARN_INTERNAL_ATTEMPT_ALL_H

#include <exception>

namespace quarn::details {

// The steps one by one, for those who do not know their number beforehand. One thread.
class Attempts {
 public:
  template <class Step>
  void Run(const Step& step) {
    try {
      step();
    } catch (...) {
      KeepCurrentException();
    }
  }

  // Throws the first exception; called once, behind the last step.
  void Finish() const;

 private:
  // The first exception waits until Finish. Only one can travel on: each later one becomes a line
  // of the log.
  void KeepCurrentException() noexcept;

  std::exception_ptr first_;
};

template <class... Steps>
void AttemptAll(const Steps&... steps) {
  Attempts attempts;
  (attempts.Run(steps), ...);
  attempts.Finish();
}

}  // namespace quarn::details

#endif  // QUARN_INTERNAL_ATTEMPT_ALL_H

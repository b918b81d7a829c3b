// The event loop of a process whose memory may run out.
#ifndef TORTURE_LOOP_H
#define TORTURE_LOOP_H

#include <QTimer>
#include <chrono>
#include <functional>

namespace tarv::torture {

// Only what goes wrong takes so long, or a machine that is very busy.
inline constexpr std::chrono::milliseconds kPatience(20000);
// How long memory stays away when nothing tells that the operation is over.
inline constexpr std::chrono::milliseconds kWant(150);

// Runs the event loop until a condition holds. An allocation that fails inside the loop is counted
// as an escaped exception. Takes no memory itself.
class Loop {
 public:
  Loop();
  // False when `limit` is over first.
  bool RunUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);
  int CountEscapedExceptions() const { return escaped_exceptions_; }

 private:
  void Turn();

  QTimer wake_;
  int escaped_exceptions_ = 0;
};

}  // namespace tarv::torture

#endif  // TORTURE_LOOP_H

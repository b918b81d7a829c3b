// tarv::Loop: the thread that a Caller, a Service or a KeptTask lives on, and its clock.
#ifndef TARV_CALLS_LOOP_H
#define TARV_CALLS_LOOP_H

#include <chrono>
#include <functional>
#include <memory>

namespace tarv {

// One thread that runs what it is given, a function at a time. Derive from it to drive the layer
// from another event loop than Qt's, or from a test with a clock of its own.
//
// Exceptions of a function are the loop's to handle; the layer itself gives it none that throws. Post
// and WakeAt may throw std::bad_alloc, and the function is destroyed then.
class Loop {
 public:
  using Clock = std::chrono::steady_clock;
  using Time = Clock::time_point;
  using Function = std::function<void()>;

  Loop() = default;
  virtual ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  // Whether this is called on the loop's thread. Any thread.
  virtual bool IsCurrent() const = 0;
  // Runs `function` later on the loop's thread, never inside this call, in the order of posting.
  // Any thread. A function that the loop does not live to run is destroyed.
  virtual void Post(Function function) = 0;
  // The time. Only goes forward. Any thread.
  virtual Time Now() const = 0;
  // Runs `function` once on the loop's thread when the time has come, never inside this call. Any
  // thread. A function that the loop does not live to run is destroyed.
  virtual void WakeAt(Time time, Function function) = 0;

  // The Qt event loop of this thread: the same object while anybody holds it. Its functions run
  // from QCoreApplication::exec() or QThread::exec(), with the clock of the machine.
  static std::shared_ptr<Loop> OfThisThread();
};

}  // namespace tarv

#endif  // TARV_CALLS_LOOP_H

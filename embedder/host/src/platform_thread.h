// PlatformThread: the one thread of an engine, as a place to put work.
#ifndef VELTRA_HOST_SRC_PLATFORM_THREAD_H
#define VELTRA_HOST_SRC_PLATFORM_THREAD_H

#include <QObject>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace veltra::host {

// Made and ended on its thread; the rest may be called from any.
class PlatformThread : public std::enable_shared_from_this<PlatformThread> {
 public:
  using Task = std::function<void()>;

  PlatformThread() : receiver_(new QObject) {}
  ~PlatformThread() { End(); }
  PlatformThread(const PlatformThread&) = delete;
  PlatformThread& operator=(const PlatformThread&) = delete;

  // Has the event loop run the task once, in order. After the end, drops it.
  void Post(Task task);
  // The same after a delay.
  void PostDelayed(Task task, std::chrono::milliseconds delay);

  // Destroys what has not run; nothing runs any more. Also from within a task.
  void End();

  bool IsCurrent() const { return std::this_thread::get_id() == id_; }

 private:
  void Run(const Task& task);
  void StartTimer(const Task& task, std::chrono::milliseconds delay);
  void RunDelayed(std::uint64_t id);

  const std::thread::id id_ = std::this_thread::get_id();
  std::mutex mutex_;   // guards receiver_, which only the thread itself changes
  QObject* receiver_;  // null after the end
  int running_ = 0;    // tasks inside each other
  std::map<std::uint64_t, Task> delayed_;
  std::uint64_t last_delayed_ = 0;
};

}  // namespace veltra::host

#endif  // VELTRA_HOST_SRC_PLATFORM_THREAD_H

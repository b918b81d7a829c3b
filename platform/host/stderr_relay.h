// Passes on what a task writes to its standard error, and remembers the end of it.
#ifndef RUNTIME_MANAGER_HOST_STDERR_RELAY_H
#define RUNTIME_MANAGER_HOST_STDERR_RELAY_H

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QTimer>
#include <functional>
#include <memory>

#include "quiet_notifier.h"
#include "unique_fd.h"

namespace RuntimeManager::host {

// Never raises SIGPIPE, and blocks in FinishNow() alone: while this process's own standard error
// takes nothing, the task has to wait; once that is closed, only the memory of the last lines
// remains. Belongs to the thread that made it.
class StderrRelay {
 public:
  // The read end of the pipe, which does not block. An invalid one makes a relay with nothing to
  // do.
  explicit StderrRelay(UniqueFd pipe);
  ~StderrRelay();
  StderrRelay(const StderrRelay&) = delete;
  StderrRelay& operator=(const StderrRelay&) = delete;

  // Reads and forwards what there is, as far as it goes. The event loop sees to it; who waits for
  // the task's end without one has to.
  void Pump();
  // What is readable when there is more to pump; -1 when that does not help.
  int WaitsFor() const { return HasPending() ? -1 : pipe_.Get(); }

  // The task has ended: takes what is left and closes the pipe. What cannot be forwarded at once
  // follows from the event loop; when it has, the relay calls `on_forwarded`, which may destroy it.
  // That is kept for a limited number of tasks in the process.
  void Finish(std::function<void()> on_forwarded);
  // The same without an event loop: it is waited here until standard error has taken everything, up
  // to `limit_ms`.
  void FinishNow(int limit_ms);
  // Whether the relay holds something that is still to be forwarded.
  bool HasPending() const { return !pending_.isEmpty(); }
  // The last lines, escaped, so in one line, without the last one's end; empty when the task wrote
  // nothing.
  QString LastLines() const;

 private:
  void OnEvent();
  // False when there is nothing more to read now.
  bool ReadChunk();
  void Remember(const QByteArray& chunk);
  void Forward();
  void TakeRest();
  void KeepBacklog();
  void SetReading(bool enabled);
  void Close();

  UniqueFd pipe_;
  std::unique_ptr<QuietNotifier> readable_;  // none without a pipe
  QTimer resume_;
  QByteArray pending_;  // read, not yet forwarded
  QByteArray tail_;
  std::function<void()> on_forwarded_;
  bool forwards_ = true;
  bool keeps_backlog_ = false;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_STDERR_RELAY_H

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

// While this process's own standard error takes nothing, the task waits; once nobody reads it any
// more, the relay only remembers the last lines. FinishNow() alone blocks, and nothing raises
// SIGPIPE. Belongs to the thread that made it.
class StderrRelay {
 public:
  // The task's name, for warnings, and the read end of the pipe, which does not block. An invalid one
  // makes a relay with nothing to do.
  StderrRelay(QString task, UniqueFd pipe);
  ~StderrRelay();
  StderrRelay(const StderrRelay&) = delete;
  StderrRelay& operator=(const StderrRelay&) = delete;

  // Reads and forwards as much as is possible now. The event loop calls it; without one, the caller
  // that waits for the task's end does.
  void Pump();
  // The descriptor that becomes readable when there is more to pump; -1 while what was read waits to
  // be forwarded.
  int WaitsFor() const { return HasPending() ? -1 : pipe_.Get(); }

  // The task has ended: reads the rest and closes the pipe. The event loop forwards what standard
  // error does not take now, for a limited number of tasks in the process, and then calls
  // `on_forwarded`, which may destroy the relay.
  void Finish(std::function<void()> on_forwarded);
  // The same without an event loop: waits here until standard error has taken everything, for up to
  // `limit_ms`.
  void FinishNow(int limit_ms);
  // Reads and forwards no more.
  void Drop();
  // Whether the relay holds something that is still to be forwarded.
  bool HasPending() const { return !pending_.isEmpty(); }
  // The last lines in one: escaped, with " | " between them, and without the last one's end; empty
  // when the task wrote nothing.
  QString LastLines() const;

 private:
  void OnEvent();
  // False when there is nothing more to read now.
  bool ReadChunk();
  void Remember(const QByteArray& chunk);
  void Copy(const QByteArray& chunk);
  void Forward();
  bool IsBroken(int target);
  void TakeRest();
  void KeepBacklog();
  void SetReading(bool enabled);
  void Close();

  const QString task_;
  UniqueFd pipe_;
  UniqueFd copy_;  // the file that RUNTIME_MANAGER_STDERR names; none without it
  std::unique_ptr<QuietNotifier> readable_;  // none without a pipe
  QTimer resume_;
  QByteArray pending_;  // read, not yet forwarded
  QByteArray tail_;
  std::function<void()> on_forwarded_;
  int vain_reads_ = 0;  // in a row
  int vain_writes_ = 0;
  bool forwards_ = true;
  bool keeps_backlog_ = false;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_STDERR_RELAY_H

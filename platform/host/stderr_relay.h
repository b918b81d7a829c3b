// Passes on what a task writes to its standard error, and remembers the end of it.
#ifndef RUNTIME_MANAGER_HOST_STDERR_RELAY_H
#define RUNTIME_MANAGER_HOST_STDERR_RELAY_H

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QTimer>
#include <memory>

#include "quiet_notifier.h"
#include "unique_fd.h"

namespace RuntimeManager::host {

// Never blocks and never raises SIGPIPE: while this process's own standard error takes nothing, the
// task has to wait; once that is closed, only the memory of the last lines remains. Belongs to the
// thread that made it.
class StderrRelay {
 public:
  // The read end of the pipe, which does not block. An invalid one makes a relay with nothing to
  // do.
  explicit StderrRelay(UniqueFd pipe);

  // The task has ended: takes what is left and closes the pipe.
  void Finish();
  // The last lines, without the last line's end; empty when the task wrote nothing.
  QString LastLines() const;

 private:
  void OnReadable();
  // False when there is nothing more to read now.
  bool ReadChunk();
  void Remember(const QByteArray& chunk);
  void Forward();
  void SetReading(bool enabled);
  void Close();

  UniqueFd pipe_;
  std::unique_ptr<QuietNotifier> readable_;  // none without a pipe
  QTimer resume_;
  QByteArray pending_;  // read, not yet forwarded
  QByteArray tail_;
  bool forwards_ = true;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_STDERR_RELAY_H

// A socket file that goes with its owner.
#ifndef RUNTIME_MANAGER_HOST_SOCKET_FILE_H
#define RUNTIME_MANAGER_HOST_SOCKET_FILE_H

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <utility>

#include "process_exit.h"

namespace RuntimeManager::host {

// Removes the file when it is destroyed, and at the exit of the process if it still exists then. A
// forked copy of the process leaves the file alone.
class SocketFile {
 public:
  SocketFile() = default;
  explicit SocketFile(const QString& path) : path_(path.toUtf8()) {
    ProcessExit::Get().AddFile(path_);
  }
  SocketFile(SocketFile&& other) noexcept : path_(std::exchange(other.path_, {})) {}
  SocketFile& operator=(SocketFile&& other) noexcept {
    if (this != &other) {
      Remove();
      path_ = std::exchange(other.path_, {});
    }
    return *this;
  }
  SocketFile(const SocketFile&) = delete;
  SocketFile& operator=(const SocketFile&) = delete;
  ~SocketFile() { Remove(); }

  void Remove() {
    if (!path_.isEmpty()) {
      ProcessExit::Get().RemoveFile(std::exchange(path_, {}));
    }
  }

 private:
  QByteArray path_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_SOCKET_FILE_H

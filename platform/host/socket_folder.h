// The folder of the user's sockets, and the socket files in it.
#ifndef RUNTIME_MANAGER_HOST_SOCKET_FOLDER_H
#define RUNTIME_MANAGER_HOST_SOCKET_FOLDER_H

#include <RuntimeManager/Error.h>

#include <QtCore/QString>
#include <optional>
#include <vector>

#include "socket_file.h"
#include "unique_fd.h"

namespace RuntimeManager::host {

// A folder that is the user's alone, held open: what is done in it cannot be led elsewhere.
class SocketFolder {
 public:
  // The folder of the tasks' sockets: runtime-manager/ under XDG_RUNTIME_DIR, or
  // runtime-manager-<uid>/ under the temporary directory. It is made when it is missing; when this
  // process uses it for the first time, the files of starters that are no more are removed.
  static SocketFolder OpenTasks(Error* error);
  // intents/ in the folder of the tasks.
  static SocketFolder OpenIntents(Error* error);
  // The folder at `path` as it is: nothing is made, removed or checked. Invalid, with errno set, when
  // it cannot be opened.
  static SocketFolder Look(const QString& path);
  // The path of the folder of the tasks, whether it is there or not.
  static QString TasksPath();

  bool IsValid() const { return folder_.IsValid(); }
  int Descriptor() const { return folder_.Get(); }
  QString PathOf(const QString& name) const { return path_ + '/' + name; }

  // A socket that listens on `name` in the folder, its file open to the user alone whatever the
  // umask. Invalid, with `error` set, when there is none. The file is the caller's to remove.
  UniqueFd Listen(const QString& name, Error* error) const;
  // The same with a first connection, this process's own, which does not block: it is there before
  // the socket can be found under its name.
  UniqueFd ListenConnected(const QString& name, UniqueFd* first, Error* error) const;
  // Connects to the socket `name`; see ConnectSocket.
  UniqueFd Connect(const QString& name, int* error_number) const;
  // Whether a live process has the socket `name`, without a connection that it would notice: 0 when
  // one has; ENOENT when there is no such file; ECONNREFUSED when the file is left over; another
  // error number when that cannot be told.
  int Probe(const QString& name) const;
  void Remove(const QString& name) const;
  // What there is in the folder, but "." and ".."; none, with errno set, when it cannot be read.
  std::optional<std::vector<QString>> ListNames() const;
  // No error when the folder is the user's and closed to others.
  Error Check() const;

 private:
  SocketFolder() = default;
  SocketFolder(UniqueFd folder, QString path)
      : folder_(std::move(folder)), path_(std::move(path)) {}
  static SocketFolder OpenIn(int parent, const QString& parent_path, const QString& name,
                             Error* error);

  UniqueFd folder_;
  QString path_;
};

// Connects without blocking to the socket at `path`, however long that is. Invalid, with the error
// number stored, when it cannot; EAGAIN means that the listener's queue is full for now.
UniqueFd ConnectSocket(const QString& path, int* error_number);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_SOCKET_FOLDER_H

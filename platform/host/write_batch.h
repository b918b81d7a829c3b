// Small messages of one connection that go out in one system call.
#ifndef RUNTIME_MANAGER_HOST_WRITE_BATCH_H
#define RUNTIME_MANAGER_HOST_WRITE_BATCH_H

#include <QtCore/QByteArray>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string_view>

namespace RuntimeManager::host {

// What is put in leaves when its owner says so, and within about a millisecond whatever the owner
// does: a thread of the process sees to batches whose owner is busy. Write() may be called by any
// thread, the rest by the owner's.
class WriteBatch {
 public:
  // The batch of a connected socket, which stays the caller's and must be open until Close().
  // Empty when no thread can be had to see to it.
  static std::shared_ptr<WriteBatch> Create(int socket);

  // Not in a forked copy of the process: what is held there is the original's, and stays so.
  static bool IsUsable();

  // Appends a message that is made of these parts. To be called where it is usable.
  void Put(std::initializer_list<std::string_view> parts);
  // Writes what is there, as far as the socket takes it. False when something is left.
  bool Write();
  // Takes out what is left.
  QByteArray TakeRest();
  // Drops what is left, and lets go of the socket.
  void Close();

 private:
  class Watch;

  explicit WriteBatch(int socket) : socket_(socket) {}

  enum class State { kEmpty, kStuck, kMoved };

  State WriteLate();
  bool WriteLocked();

  std::mutex mutex_;  // guards what follows
  int socket_;
  QByteArray bytes_;  // keeps its memory
  bool is_broken_ = false;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_WRITE_BATCH_H

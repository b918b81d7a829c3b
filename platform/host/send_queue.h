// What one connection has to send, and the socket that it goes to.
#ifndef RUNTIME_MANAGER_HOST_SEND_QUEUE_H
#define RUNTIME_MANAGER_HOST_SEND_QUEUE_H

#include <sys/types.h>
#include <sys/uio.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "out_line.h"
#include "unique_fd.h"

namespace RuntimeManager::host {

// Any thread puts lines in. One thread at a time writes: it gives up the lock while the system
// works, others append meanwhile and return, and it takes along what they appended. So the lines of
// a thread keep their order, none is torn, and nobody waits for a lock while a reader is waited for.
//
// The thread that made the queue may cork it: small lines that this thread puts in are then held,
// and leave together.
class SendQueue {
 public:
  using Clock = std::chrono::steady_clock;
  // Both are called by the thread that has met the news, without the lock.
  struct Callbacks {
    // The socket is full: call Resume() when there is room.
    std::function<void()> on_full;
    // Once at most: nothing can be sent any more. The number is errno's; ENOMEM when memory ran out
    // for what waits.
    std::function<void(int error_number)> on_error;
  };
  enum class Outcome { kTaken, kTooMuch, kClosed };

  // `task` names the connection in the record. At most `max_waiting` bytes wait for the peer.
  SendQueue(QString task, std::size_t max_waiting, Callbacks callbacks);
  SendQueue(const SendQueue&) = delete;
  SendQueue& operator=(const SendQueue&) = delete;
  ~SendQueue() = default;

  // Sends the line after all that the calling thread has put in before. What is too much is not
  // taken, and changes nothing. Any thread.
  Outcome Put(OutLine line);
  // Sends what waits, and blocks for it until `deadline`. Calls nothing. Any thread.
  void FlushUntil(Clock::time_point deadline);
  // Takes nothing more and drops what waits, after one last try to send it. Any thread.
  void Stop();
  // Ends the socket, which stays open: whoever reads from it sees its end. Any thread.
  void ShutDown();

  // The rest is for the thread that made the queue.

  // The connected socket. What was put in before goes out.
  void Attach(UniqueFd socket);
  // Writes what waits, up to about a mebibyte. False when nothing waits any more.
  bool Resume();
  // Whether small lines of this thread are held from now on: until Uncork(), until they are 4 KiB,
  // or until a line comes that is not held and takes them along.
  void Cork(bool corked) { is_corked_ = corked; }
  // Sends what is held.
  void Uncork();
  // Sends what is held, if it has been for 200 microseconds.
  void SendOld(Clock::time_point now);
  // As Stop(), and closes the socket.
  void Close();

 private:
  using Lock = std::unique_lock<std::mutex>;
  enum class News { kNone, kFull, kError };
  class Turn;

  bool MayWrite() const;
  bool IsEmpty() const { return queue_.empty() && tail_.isEmpty(); }
  bool Fits(const OutLine& line) const { return waiting_ + line.Size() <= max_waiting_; }
  bool MayHold(const OutLine& line);
  void Append(const OutLine& line);
  void CloseTail();
  void PutNow(Lock& lock, OutLine& line);
  News WriteFrom(Lock& lock, OutLine& line);
  News KeepRest(const OutLine& line, bool is_torn);
  News Write(Lock& lock, Clock::time_point patience = {});
  void WriteAndTell(Lock& lock);
  void SendHeld();
  void TellOfWant(Lock& lock);
  void Tell(Lock& lock, News news);
  std::size_t Gather(iovec* parts, std::size_t most) const;
  ssize_t WriteSome(Lock& lock, Clock::time_point patience, long long* time);
  News Judge(int error_number);
  void DropWritten(std::size_t size, long long time);
  void Drop();
  // An errno for which the socket takes nothing now, and may later.
  bool IsPassing(int error_number);

  const QString task_;
  const std::size_t max_waiting_;
  const Callbacks callbacks_;
  const std::thread::id thread_ = std::this_thread::get_id();

  // Of the thread that made the queue.
  bool is_corked_ = false;
  bool holds_ = false;
  Clock::time_point held_since_;

  std::mutex mutex_;  // guards what follows; the writer alone touches the front of the queue
  UniqueFd socket_;
  std::deque<QByteArray> queue_;
  QByteArray tail_;                                 // small lines behind the queue
  std::size_t front_sent_ = 0;                      // bytes of the front that are sent
  std::size_t waiting_ = 0;                         // bytes that were put in and are not sent
  bool is_writing_ = false;                         // a thread is the writer
  bool waits_for_room_ = false;                     // only Resume() and FlushUntil() go on
  bool has_room_ = false;                           // the socket says so
  std::optional<Clock::time_point> refused_since_;  // although it has room
  bool is_stopped_ = false;
  bool is_closed_ = false;
  int error_ = 0;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_SEND_QUEUE_H

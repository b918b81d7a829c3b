// One connection that carries JSON objects, a line each.
#ifndef RUNTIME_MANAGER_HOST_LINE_CHANNEL_H
#define RUNTIME_MANAGER_HOST_LINE_CHANNEL_H

#include <RuntimeManager/Error.h>

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>
#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>
#include <QtCore/QString>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "line_buffer.h"
#include "message_limits.h"
#include "quiet_notifier.h"
#include "send_queue.h"
#include "turn.h"
#include "unique_fd.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {

// Belongs to the thread that made it, but for what is marked. Its owner may drop it, or Close() it,
// from inside either callback; after that it calls nothing any more. Nobody may drop it while a
// thread is inside one of its functions.
class LineChannel : public std::enable_shared_from_this<LineChannel> {
 public:
  struct Callbacks {
    std::function<void(const QJsonObject&)> on_object;
    // Whether texts are wanted as such. They then go to on_data, and not to on_object.
    std::function<bool()> wants_data;
    std::function<void(QByteArray&)> on_data;
    std::function<void(const Error&)> on_end;  // once at most, the last call
  };

  // `task` names the channel in the record, `peer` its other end in texts: "the task 'x'".
  LineChannel(QString task, QString peer, Callbacks callbacks);
  ~LineChannel() { Close(); }
  LineChannel(const LineChannel&) = delete;
  LineChannel& operator=(const LineChannel&) = delete;

  // The connected, non-blocking socket. What was sent before waits for it.
  void Attach(UniqueFd socket);
  // Sends after all earlier objects of the calling thread. An object over the bound of a message,
  // and one too much for the queue, end the channel. Any thread.
  void Send(const QJsonObject& object);
  // The same, but an object over the bound of a message leaves the channel as it is: false.
  bool SendIfItFits(const QJsonObject& object);
  std::size_t GetMostBytesOfAMessage() const { return limits_.max_message; }
  // Sends the object {"data": text}; `text` is UTF-8. Any thread.
  void SendData(std::string_view text);
  // Delivers what has arrived by now, whole.
  void Drain();
  // Ends the channel from its event loop, after what has arrived. Any thread.
  void EndSoon(const Error& error);
  // The same, when memory has run out: takes none. Any thread.
  void EndForMemory() { EndSoon(out_of_memory_); }
  // Ends the channel without a word.
  void Close();
  // The process waits for the peer that long when it exits.
  void FlushAtExit(std::chrono::milliseconds patience);

 private:
  class CorkScope;

  bool IsDroppedInCopy();
  void Put(OutLine line);
  void WarnOfDropped(const QString& why);
  void OnQueueFull();
  void OnSendError(int error_number);
  void OnReadable();
  void OnWritable();
  bool IsInItsThread() const;
  void Read(std::size_t budget, Turn turn, bool to_the_end);
  ssize_t ReadSome(const LineBuffer::Room& room);
  void OnReadError(int error_number);
  bool DeliverLines(Turn* turn);
  void PrepareForTheNext(Turn* turn);
  bool StopForThisTurn();
  void EndIfOverlong();
  bool DeliverRestSoon();
  void OnRest();
  void DeliverLine(const LineBuffer::Line& line);
  std::optional<QJsonObject> Decode(std::string_view text);
  void DeliverData(std::string_view text);
  bool WantsData() const { return callbacks_.wants_data && callbacks_.wants_data(); }
  void WarnAboutLine(std::string_view line, const char* what);
  // Takes a step of this channel's own, no handler's. What it loses for want of memory cannot be told
  // from here, so the connection ends then, and whoever waits for an answer hears of it.
  template <class Step>
  bool OrEnd(const Step& step) {
    const bool taken = Attempt(step);
    if (!taken) {
      End(out_of_memory_);
    }
    return taken;
  }
  void EndTooLong();
  void End(const Error& error);

  const QString task_;
  const QString peer_;
  const Error out_of_memory_;
  const Limits limits_;
  Callbacks callbacks_;
  QObject context_;
  const std::shared_ptr<SendQueue> queue_;  // owns the socket
  int socket_ = -1;
  std::unique_ptr<QuietNotifier> readable_;
  std::unique_ptr<QSocketNotifier> writable_;
  LineBuffer input_;
  int line_warnings_ = 0;
  int vain_reads_ = 0;  // in a row
  bool ended_ = false;
  bool rest_is_due_ = false;
  bool is_over_time_ = false;  // the rest is due because the turn was over
  std::atomic<bool> is_ending_{false};
  std::atomic<bool> late_send_warned_{false};
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_LINE_CHANNEL_H

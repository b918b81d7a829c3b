// One connection that carries JSON objects, a line each.
#ifndef RUNTIME_MANAGER_HOST_LINE_CHANNEL_H
#define RUNTIME_MANAGER_HOST_LINE_CHANNEL_H

#include <RuntimeManager/Error.h>

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>
#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>
#include <QtCore/QString>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string_view>

#include "line_buffer.h"
#include "message_limits.h"
#include "unique_fd.h"
#include "write_batch.h"

namespace RuntimeManager::host {

// Belongs to the thread that made it. Its owner may drop it, or Close() it, from inside either
// callback; after that it calls nothing any more.
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
  // Sends after all earlier objects. An object over the bound of a message, and one too much for
  // the queue, end the channel.
  void Send(const QJsonObject& object);
  // Sends the object {"data": text}; `text` is UTF-8.
  void SendData(std::string_view text);
  // Delivers what has arrived by now, whole.
  void Drain();
  // Writes what waits, and blocks for it until `deadline`. Does without an event loop, and calls
  // nothing.
  void FlushUntil(std::chrono::steady_clock::time_point deadline);
  // Ends the channel from the event loop, after what has arrived.
  void EndSoon(const Error& error);
  // Ends the channel without a word.
  void Close();

  bool IsOpen() const { return !ended_; }

 private:
  class DataLine;

  bool MaySend();
  bool Accepts(std::size_t size);
  bool Hold(std::string_view text);
  void WriteHeld();
  void DropUnsent();
  void Write(DataLine line);
  void Queue(QByteArray bytes);
  void Append(QByteArray bytes);
  void OnReadable();
  void OnWritable();
  void Read(std::size_t budget, bool to_the_end);
  void OnReadError(int error_number);
  void DeliverLines();
  void DeliverRestSoon();
  void DeliverLine(const LineBuffer::Line& line);
  void DeliverData(std::string_view text);
  void WarnAboutLine(std::string_view line);
  void Flush();
  void WriteAtOnce(DataLine& line) const;
  bool IsBeingRead(std::chrono::steady_clock::time_point deadline) const;
  ssize_t WriteSome();
  void DropWritten(std::size_t size);
  void WaitForRoom(bool wait);
  void End(const Error& error);

  const QString task_;
  const QString peer_;
  const Limits limits_;
  Callbacks callbacks_;
  QObject context_;
  UniqueFd socket_;
  std::unique_ptr<QSocketNotifier> readable_;
  std::unique_ptr<QSocketNotifier> writable_;
  LineBuffer input_;
  QByteArray spare_;  // memory for the next text
  std::deque<QByteArray> queue_;
  std::size_t queued_ = 0;      // bytes in the queue, with those of its front that are sent
  std::size_t front_sent_ = 0;  // bytes of the front that are sent
  std::shared_ptr<WriteBatch> held_;
  std::size_t held_size_ = 0;  // bytes put into held_; nothing is in the queue then
  bool holding_ = false;
  int line_warnings_ = 0;
  bool sending_ended_ = false;
  bool late_send_warned_ = false;
  bool ended_ = false;
  bool rest_is_due_ = false;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_LINE_CHANNEL_H

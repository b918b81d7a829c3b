#include "line_channel.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <new>
#include <optional>
#include <utility>

#include "envelope.h"
#include "support.h"
#include "trace.h"

namespace RuntimeManager::host {
namespace {

// What one turn of the event loop reads, and writes of the queue, at most, so that a flood on one
// connection leaves time for timers and other connections.
constexpr std::size_t kBytesPerTurn = std::size_t{1} << 20U;
// What a drain reads at most. A socket holds far less; only a peer that goes on writing gets here.
constexpr std::size_t kBytesPerDrain = std::size_t{64} << 20U;
// Small messages that go out in one system call.
constexpr std::size_t kPartsPerWrite = 64;
// What of a text is worth to wait for a reader, how long it takes to copy a mebibyte, and how long
// a reader that is not at it is waited for.
constexpr std::size_t kWorthWaiting = std::size_t{256} << 10U;
constexpr std::chrono::milliseconds kCopyTime{1};
constexpr int kReaderPatienceMs = 2;
// A text that may wait for others, and how much of them goes out together: the peer shall have
// something to do meanwhile.
constexpr std::size_t kMostHeld = std::size_t{1} << 10U;
constexpr std::size_t kBatch = std::size_t{4} << 10U;
// The longest text whose memory is kept for the next one.
constexpr int kMostSpare = 4 << 10;
// A peer that speaks another protocol shall not fill the log.
constexpr int kMaxLineWarnings = 10;
constexpr int kShownOfLine = 80;

iovec PartOf(std::string_view text) { return {const_cast<char*>(text.data()), text.size()}; }

ssize_t SendParts(int socket, iovec* parts, std::size_t count) {
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = count;
  return ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
}

// Ends the holding of messages, even when a handler throws.
class HoldingScope {
 public:
  explicit HoldingScope(bool* holding) : holding_(holding) {}
  ~HoldingScope() { *holding_ = false; }
  HoldingScope(const HoldingScope&) = delete;
  HoldingScope& operator=(const HoldingScope&) = delete;

 private:
  bool* holding_;
};

}  // namespace

// The line of a text, as far as it is not dealt with yet.
class LineChannel::DataLine {
 public:
  explicit DataLine(std::string_view text) : parts_{kDataHead, text, kDataEnd} {}

  std::size_t Size() const { return parts_[0].size() + parts_[1].size() + parts_[2].size(); }
  std::array<iovec, 3> Gather() const {
    return {PartOf(parts_[0]), PartOf(parts_[1]), PartOf(parts_[2])};
  }
  void Skip(std::size_t size) {
    for (std::string_view& part : parts_) {
      const std::size_t here = std::min(size, part.size());
      part.remove_prefix(here);
      size -= here;
    }
  }
  QByteArray Copy() const {
    QByteArray bytes(static_cast<int>(Size()), Qt::Uninitialized);
    char* out = bytes.data();
    for (const std::string_view part : parts_) {
      out = std::copy(part.begin(), part.end(), out);
    }
    return bytes;
  }

 private:
  std::array<std::string_view, 3> parts_;
};

LineChannel::LineChannel(QString task, QString peer, Callbacks callbacks)
    : task_(std::move(task)),
      peer_(std::move(peer)),
      limits_(ReadLimits()),
      callbacks_(std::move(callbacks)),
      input_(limits_.max_message) {}

void LineChannel::Attach(UniqueFd socket) {
  if (ended_) {
    return;
  }
  socket_ = std::move(socket);
  readable_ = std::make_unique<QSocketNotifier>(socket_.Get(), QSocketNotifier::Read);
  writable_ = std::make_unique<QSocketNotifier>(socket_.Get(), QSocketNotifier::Write);
  writable_->setEnabled(false);
  QObject::connect(readable_.get(), &QSocketNotifier::activated, &context_,
                   [this] { OnReadable(); });
  QObject::connect(writable_.get(), &QSocketNotifier::activated, &context_,
                   [this] { OnWritable(); });
  Flush();
}

void LineChannel::Send(const QJsonObject& object) {
  if (!MaySend()) {
    return;
  }
  std::optional<QByteArray> line = EncodeLine(object, limits_.max_message);
  // One that is not even encoded is over the bound, too.
  if (!Accepts(line ? static_cast<std::size_t>(line->size()) - 1 : limits_.max_message + 1)) {
    return;
  }
  Trace(task_, Direction::kSend, {{line->constData(), static_cast<std::size_t>(line->size()) - 1}});
  WriteHeld();
  Queue(*std::move(line));
}

void LineChannel::SendData(std::string_view text) {
  if (!IsPlainText(text)) {
    Send({{QStringLiteral("data"), QString::fromUtf8(text.data(), static_cast<int>(text.size()))}});
    return;
  }
  if (!MaySend() || !Accepts(kDataHead.size() + text.size() + kDataTail.size())) {
    return;
  }
  Trace(task_, Direction::kSend, {kDataHead, text, kDataTail});
  if (Hold(text)) {
    return;
  }
  WriteHeld();
  Write(DataLine(text));
}

// What the socket does not take is copied into the queue.
void LineChannel::Write(DataLine line) {
  const std::size_t size = line.Size();
  if (queue_.empty() && socket_.IsValid()) {
    WriteAtOnce(line);
  }
  if (line.Size() == 0) {
    return;
  }
  try {
    Queue(line.Copy());
  } catch (const std::bad_alloc&) {
    if (line.Size() == size) {
      throw;
    }
    EndSoon({Error::kConnectionLost,
             QString("memory ran out in the middle of a message to %1").arg(peer_)});
  }
}

// A reader that is at it is waited for, no longer than copying the rest would take: that spares the
// memory and the time of the copy.
void LineChannel::WriteAtOnce(DataLine& line) const {
  std::optional<std::chrono::steady_clock::time_point> deadline;
  while (line.Size() > 0) {
    auto parts = line.Gather();
    const ssize_t size = RetryOnEintr(
        [this, &parts] { return SendParts(socket_.Get(), parts.data(), parts.size()); });
    if (size < 0 && errno != EAGAIN) {
      return;  // the next try will meet it again
    }
    if (size > 0) {
      line.Skip(static_cast<std::size_t>(size));
      continue;
    }
    if (line.Size() < kWorthWaiting) {
      return;
    }
    if (!deadline) {
      deadline = std::chrono::steady_clock::now() + kCopyTime * (line.Size() >> 20U);
    }
    if (!IsBeingRead(*deadline)) {
      return;
    }
  }
}

// Whether the peer has made room before it is too late.
bool LineChannel::IsBeingRead(std::chrono::steady_clock::time_point deadline) const {
  pollfd writable{socket_.Get(), POLLOUT, 0};
  return std::chrono::steady_clock::now() < deadline &&
         ::poll(&writable, 1, kReaderPatienceMs) == 1 && writable.revents == POLLOUT;
}

bool LineChannel::MaySend() {
  if (!ended_ && !sending_ended_) {
    return true;
  }
  if (!std::exchange(late_send_warned_, true)) {
    Warn(QString("messages to %1 are dropped: its connection has ended").arg(peer_));
  }
  return false;
}

// Whether a line of `size` bytes, without its end, keeps within the bounds. Ends the channel if
// not.
bool LineChannel::Accepts(std::size_t size) {
  if (size > limits_.max_message) {
    EndSoon({Error::kMessageTooLong, QString("a message to %1 is over the bound of %2 bytes that "
                                             "RUNTIME_MANAGER_MAX_MESSAGE sets")
                                         .arg(peer_)
                                         .arg(limits_.max_message)});
    return false;
  }
  if (queued_ - front_sent_ + held_size_ + size + 1 > limits_.max_queue) {
    WriteHeld();
  }
  if (queued_ - front_sent_ + size + 1 > limits_.max_queue) {
    EndSoon({Error::kQueueFull, QString("%1 does not read: more than the %2 bytes that "
                                        "RUNTIME_MANAGER_MAX_QUEUE sets would wait for it")
                                    .arg(peer_)
                                    .arg(limits_.max_queue)});
    return false;
  }
  return true;
}

// Answers to the messages of one read go out together: a system call costs more than what else is
// done for a small message. False for a text that is to go out now.
bool LineChannel::Hold(std::string_view text) {
  if (!holding_ && held_size_ == 0) {
    return false;
  }
  if (text.size() > kMostHeld || !queue_.empty() || !WriteBatch::IsUsable()) {
    return false;
  }
  if (held_ == nullptr) {
    held_ = WriteBatch::Create(socket_.Get());
  }
  if (held_ == nullptr) {
    return false;
  }
  held_->Put({kDataHead, text, kDataEnd});
  held_size_ += DataLine(text).Size();
  if (!holding_ || held_size_ >= kBatch) {
    WriteHeld();
  }
  return true;
}

void LineChannel::WriteHeld() {
  if (std::exchange(held_size_, 0) > 0 && !held_->Write()) {
    Queue(held_->TakeRest());
  }
}

void LineChannel::Queue(QByteArray bytes) {
  const bool was_empty = queue_.empty();
  Append(std::move(bytes));
  if (was_empty && socket_.IsValid()) {
    Flush();
  }
}

void LineChannel::Append(QByteArray bytes) {
  const auto size = static_cast<std::size_t>(bytes.size());
  queue_.push_back(std::move(bytes));
  queued_ += size;
}

void LineChannel::Drain() {
  const auto self = shared_from_this();
  Read(kBytesPerDrain, true);
}

void LineChannel::EndSoon(const Error& error) {
  if (ended_ || sending_ended_) {
    return;
  }
  sending_ended_ = true;
  DropUnsent();
  WaitForRoom(false);
  Post(&context_, [this, error, weak = weak_from_this()] {
    const auto self = weak.lock();
    if (self == nullptr) {
      return;
    }
    Drain();
    End(error);
  });
}

void LineChannel::Close() {
  ended_ = true;
  if (readable_ != nullptr) {
    readable_->setEnabled(false);
  }
  if (writable_ != nullptr) {
    writable_->setEnabled(false);
  }
  DropUnsent();
  if (held_ != nullptr) {
    held_->Close();
  }
  socket_.Reset();
}

// What was held back has its last chance: without that it would have gone out already.
void LineChannel::DropUnsent() {
  if (std::exchange(held_size_, 0) > 0 && !held_->Write()) {
    held_->TakeRest();
  }
  queue_.clear();
  queued_ = front_sent_ = 0;
}

void LineChannel::End(const Error& error) {
  if (ended_) {
    return;
  }
  Close();
  const auto on_end = std::move(callbacks_.on_end);
  if (on_end) {
    on_end(error);
  }
}

void LineChannel::OnReadable() {
  const auto self = shared_from_this();
  Read(kBytesPerTurn, false);
}

void LineChannel::Read(std::size_t budget, bool to_the_end) {
  DeliverLines();  // those that were there when a handler began to run an event loop
  while (!ended_ && socket_.IsValid() && budget > 0) {
    const LineBuffer::Room room = input_.MakeRoom();
    if (room.data == nullptr) {
      OnReadError(ENOMEM);
      return;
    }
    const ssize_t size = RetryOnEintr(
        [this, &room] { return ::recv(socket_.Get(), room.data, room.size, MSG_DONTWAIT); });
    if (size < 0) {
      OnReadError(errno);
      return;
    }
    if (size == 0) {
      OnReadError(ECONNRESET);
      return;
    }
    const auto count = static_cast<std::size_t>(size);
    input_.Commit(count);
    DeliverLines();
    budget -= std::min(budget, count);
    // A short read has emptied the socket, most likely; if not, the notifier tells.
    if (count < room.size && !to_the_end) {
      return;
    }
  }
}

void LineChannel::OnReadError(int error_number) {
  if (error_number == EAGAIN) {
    return;
  }
  // A reset is the end that a peer makes which has not read everything.
  if (error_number == ECONNRESET || error_number == EPIPE) {
    End({Error::kConnectionLost, QString("%1 closed the connection, or has ended").arg(peer_)});
    return;
  }
  End(SystemError(Error::kConnectionLost, QString("cannot read from %1").arg(peer_), error_number));
}

void LineChannel::DeliverLines() {
  LineBuffer::Line line;
  const HoldingScope scope(&holding_);
  // The line is done with before a handler runs, which may run an event loop and read on.
  while (!ended_ && input_.TakeLine(&line)) {
    holding_ = input_.HoldsMore();
    if (holding_) {
      DeliverRestSoon();
    }
    DeliverLine(line);
  }
  holding_ = false;
  WriteHeld();
  if (ended_ || !input_.IsOverlong()) {
    return;
  }
  End({Error::kMessageTooLong, QString("%1 sent a line over the bound of %2 bytes that "
                                       "RUNTIME_MANAGER_MAX_MESSAGE sets")
                                   .arg(peer_)
                                   .arg(limits_.max_message)});
}

// An event loop that a handler runs gets the lines behind the handler's own, too, although no byte
// more may come to wake it.
void LineChannel::DeliverRestSoon() {
  if (std::exchange(rest_is_due_, true)) {
    return;
  }
  Post(&context_, [this, weak = weak_from_this()] {
    const auto self = weak.lock();
    if (self == nullptr) {
      return;
    }
    rest_is_due_ = false;
    DeliverLines();
  });
}

void LineChannel::DeliverLine(const LineBuffer::Line& line) {
  if (line.is_data) {
    DeliverData(line.text);
    return;
  }
  const std::optional<QJsonObject> object = DecodeLine(line.text.data(), line.text.size());
  if (!object) {
    WarnAboutLine(line.text);
    return;
  }
  Trace(task_, Direction::kReceive, {line.text});
  callbacks_.on_object(*object);
}

void LineChannel::DeliverData(std::string_view text) {
  Trace(task_, Direction::kReceive, {kDataHead, text, kDataTail});
  if (!callbacks_.wants_data || !callbacks_.wants_data()) {
    callbacks_.on_object({{QStringLiteral("data"),
                           QString::fromLatin1(text.data(), static_cast<int>(text.size()))}});
    return;
  }
  QByteArray data = input_.Detach(text, std::exchange(spare_, QByteArray()));
  callbacks_.on_data(data);
  if (data.capacity() > 0 && data.capacity() <= kMostSpare) {
    spare_ = std::move(data);
  }
}

void LineChannel::WarnAboutLine(std::string_view line) {
  if (++line_warnings_ > kMaxLineWarnings) {
    return;
  }
  const int shown = static_cast<int>(std::min<std::size_t>(line.size(), kShownOfLine));
  Warn(QString("a line of %1 bytes from %2 is dropped: it is not a JSON "
               "object; it begins with: %3%4")
           .arg(line.size())
           .arg(peer_, Escaped(QByteArray::fromRawData(line.data(), shown)),
                line_warnings_ == kMaxLineWarnings
                    ? " (further lines are dropped without a warning)"
                    : ""));
}

void LineChannel::OnWritable() {
  const auto self = shared_from_this();
  Flush();
}

void LineChannel::Flush() {
  std::size_t budget = kBytesPerTurn;
  while (!queue_.empty() && budget > 0) {
    const ssize_t size = RetryOnEintr([this] { return WriteSome(); });
    if (size < 0 && errno != EAGAIN && errno != ENOBUFS && errno != ENOMEM) {
      EndSoon(SystemError(Error::kConnectionLost,
                          QString("cannot write to %1, which may have ended").arg(peer_), errno));
      return;
    }
    if (size < 0) {
      break;
    }
    DropWritten(static_cast<std::size_t>(size));
    budget -= std::min(budget, static_cast<std::size_t>(size));
  }
  WaitForRoom(!queue_.empty());
}

void LineChannel::FlushUntil(std::chrono::steady_clock::time_point deadline) {
  using std::chrono::milliseconds;
  if (std::exchange(held_size_, 0) > 0 && !held_->Write()) {
    Append(held_->TakeRest());
  }
  while (!queue_.empty() && socket_.IsValid()) {
    const ssize_t size = RetryOnEintr([this] { return WriteSome(); });
    if (size < 0 && errno != EAGAIN) {
      return;
    }
    if (size >= 0) {
      DropWritten(static_cast<std::size_t>(size));
    }
    const auto left =
        std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left <= milliseconds::zero()) {
      return;
    }
    pollfd writable{socket_.Get(), POLLOUT, 0};
    ::poll(&writable, 1, static_cast<int>(left.count()));
  }
}

ssize_t LineChannel::WriteSome() {
  std::array<iovec, kPartsPerWrite> parts{};
  const std::size_t count = std::min(queue_.size(), parts.size());
  std::size_t skip = front_sent_;
  for (std::size_t i = 0; i < count; ++i) {
    const QByteArray& line = queue_[i];
    parts[i].iov_base = const_cast<char*>(line.constData()) + skip;
    parts[i].iov_len = static_cast<std::size_t>(line.size()) - skip;
    skip = 0;
  }
  return SendParts(socket_.Get(), parts.data(), count);
}

void LineChannel::DropWritten(std::size_t size) {
  front_sent_ += size;
  while (!queue_.empty() && front_sent_ >= static_cast<std::size_t>(queue_.front().size())) {
    const auto done = static_cast<std::size_t>(queue_.front().size());
    front_sent_ -= done;
    queued_ -= done;
    queue_.pop_front();
  }
}

void LineChannel::WaitForRoom(bool wait) {
  if (writable_ != nullptr && writable_->isEnabled() != wait) {
    writable_->setEnabled(wait);
  }
}

}  // namespace RuntimeManager::host

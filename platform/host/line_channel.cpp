#include "line_channel.h"

#include <sys/socket.h>

#include <QtCore/QThread>
#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "connections.h"
#include "envelope.h"
#include "plain_text.h"
#include "process_exit.h"
#include "support.h"
#include "trace.h"

namespace RuntimeManager::host {
namespace {

// What one turn of the event loop reads at most.
constexpr std::size_t kBytesPerTurn = std::size_t{1} << 20U;
// What a drain reads at most. A socket holds far less; only a peer that goes on writing gets here.
constexpr std::size_t kBytesPerDrain = std::size_t{64} << 20U;

}  // namespace

LineChannel::LineChannel(QString task, QString peer, Callbacks callbacks)
    : task_(std::move(task)),
      peer_(std::move(peer)),
      out_of_memory_(Error::kConnectionLost,
                     QString("memory ran out for the messages from and to %1").arg(peer_)),
      limits_(ReadLimits()),
      callbacks_(std::move(callbacks)),
      queue_(std::make_shared<SendQueue>(
          task_, limits_.max_queue,
          SendQueue::Callbacks{[this] { OnQueueFull(); },
                               [this](int error_number) { OnSendError(error_number); }})),
      input_(limits_.max_message) {}

void LineChannel::Attach(UniqueFd socket) {
  if (ended_) {
    return;
  }
  socket_ = socket.Get();
  TraceEvent(task_, "connection", ConnectionFacts(socket_));
  readable_ = std::make_unique<QuietNotifier>(
      socket_, [this] { OnReadable(); }, QuietNotifier::Use::kOften);
  writable_ = std::make_unique<QSocketNotifier>(socket_, QSocketNotifier::Write);
  writable_->setEnabled(false);
  QObject::connect(writable_.get(), &QSocketNotifier::activated, writable_.get(),
                   [this] { OnWritable(); });
  queue_->Attach(std::move(socket));
}

void LineChannel::FlushAtExit(std::chrono::milliseconds patience) {
  ProcessExit::Get().AddQueue(queue_, patience);
}

bool LineChannel::IsInItsThread() const { return context_.thread() == QThread::currentThread(); }

// ---- Sending. Any thread. ----

void LineChannel::Send(const QJsonObject& object) {
  if (!SendIfItFits(object)) {
    EndTooLong();
  }
}

bool LineChannel::SendIfItFits(const QJsonObject& object) {
  if (IsDroppedInCopy()) {
    return true;
  }
  // One over the bound is not even encoded.
  std::optional<QByteArray> line = EncodeLine(object, limits_.max_message);
  if (!line) {
    return false;
  }
  Put(OutLine(*std::move(line)));
  return true;
}

void LineChannel::SendData(std::string_view text) {
  if (IsDroppedInCopy()) {
    return;
  }
  if (!IsPlainText(text)) {
    Send({{QStringLiteral("data"), QString::fromUtf8(text.data(), static_cast<int>(text.size()))}});
    return;
  }
  if (kDataHead.size() + text.size() + kDataTail.size() <= limits_.max_message) {
    Put(OutLine(text));
    return;
  }
  EndTooLong();
}

// A thread that a copy of the process does not have may hold the lock of the queue.
bool LineChannel::IsDroppedInCopy() {
  if (!IsForkedCopy()) {
    return false;
  }
  WarnOfDropped(CheckOriginal().message());
  return true;
}

void LineChannel::Put(OutLine line) {
  switch (queue_->Put(std::move(line))) {
    case SendQueue::Outcome::kTaken:
      return;
    case SendQueue::Outcome::kTooMuch:
      EndSoon({Error::kQueueFull, QString("%1 does not read: more than the %2 bytes that "
                                          "RUNTIME_MANAGER_MAX_QUEUE sets would wait for it")
                                      .arg(peer_)
                                      .arg(limits_.max_queue)});
      return;
    case SendQueue::Outcome::kClosed:
      WarnOfDropped("its connection has ended");
  }
}

void LineChannel::WarnOfDropped(const QString& why) {
  if (!late_send_warned_.exchange(true)) {
    Warn(QString("messages to %1 are dropped: %2").arg(peer_, why));
  }
}

void LineChannel::OnQueueFull() {
  if (!IsInItsThread()) {
    Post(&context_, [this] { OnQueueFull(); });
    return;
  }
  const bool waits = Attempt([this] {
    if (!ended_ && writable_ != nullptr) {
      writable_->setEnabled(true);
    }
  });
  if (!waits) {
    EndForMemory();
  }
}

void LineChannel::OnSendError(int error_number) {
  if (error_number == ENOMEM) {
    EndForMemory();
    return;
  }
  EndSoon(MadeOr(
      [this, error_number] {
        return SystemError(Error::kConnectionLost,
                           QString("cannot write to %1, which may have ended").arg(peer_),
                           error_number);
      },
      out_of_memory_));
}

void LineChannel::EndTooLong() {
  EndSoon({Error::kMessageTooLong, QString("a message to %1 is over the bound of %2 bytes that "
                                           "RUNTIME_MANAGER_MAX_MESSAGE sets")
                                       .arg(peer_)
                                       .arg(limits_.max_message)});
}

void LineChannel::EndSoon(const Error& error) {
  if (is_ending_.exchange(true)) {
    return;
  }
  queue_->Stop();
  const bool posted = Attempt([this, &error] {
    Post(&context_, [this, error] {
      const auto self = shared_from_this();
      Drain();
      End(error);
    });
  });
  // The end of the socket wakes the event loop without an event.
  if (!posted) {
    queue_->ShutDown();
  }
}

// ---- The rest belongs to the thread of the channel. ----

void LineChannel::OnWritable() {
  const auto self = shared_from_this();
  OrEnd([this] {
    const bool waits = queue_->Resume();
    if (!ended_) {
      writable_->setEnabled(waits);
    }
  });
}

void LineChannel::Close() {
  ended_ = is_ending_ = true;
  if (readable_ != nullptr) {
    readable_->SetEnabled(false);
  }
  // Memory may have run out between the two.
  if (writable_ != nullptr) {
    writable_->setEnabled(false);
  }
  queue_->Close();
  ProcessExit::Get().RemoveQueue(queue_);
}

void LineChannel::End(const Error& error) {
  if (ended_) {
    return;
  }
  Close();
  if (const auto on_end = std::move(callbacks_.on_end)) {
    on_end(error);
  }
}

void LineChannel::Drain() {
  const auto self = shared_from_this();
  Read(kBytesPerDrain, Turn::WithoutEnd(), true);
}

void LineChannel::OnReadable() {
  const auto self = shared_from_this();
  // The other half of the turn does it.
  if (!is_over_time_) {
    ++vain_reads_;
    Read(kBytesPerTurn, Turn::Short(), false);
  }
}

void LineChannel::Read(std::size_t budget, Turn turn, bool to_the_end) {
  // Those that were there when a handler began to run an event loop, or when a turn was over.
  bool goes_on = DeliverLines(&turn);
  while (goes_on && !ended_ && readable_ != nullptr && budget > 0) {
    const LineBuffer::Room room = input_.MakeRoom();
    const ssize_t size = room.data == nullptr ? -ENOMEM : ReadSome(room);
    if (size <= 0) {
      OnReadError(static_cast<int>(-size));
      return;
    }
    const auto count = static_cast<std::size_t>(size);
    input_.Commit(count);
    budget -= std::min(budget, count);
    // A short read has emptied the socket, most likely; if not, the notifier tells.
    const bool may_go_on = count == room.size || to_the_end;
    if (may_go_on) {
      turn.Begin();
    }
    goes_on = DeliverLines(&turn) && may_go_on;
  }
}

// The negative number of the error; 0 at the end of the stream.
ssize_t LineChannel::ReadSome(const LineBuffer::Room& room) {
  const ssize_t size =
      RetryOnEintr([this, &room] { return ::recv(socket_, room.data, room.size, MSG_DONTWAIT); });
  if (size < 0) {
    return -errno;
  }
  vain_reads_ = 0;
  return size;
}

void LineChannel::OnReadError(int error_number) {
  if (error_number == EAGAIN && vain_reads_ < kMostVainTries) {
    return;
  }
  // A reset is the end that a peer makes which has not read everything.
  const bool is_end = error_number == 0 || error_number == ECONNRESET || error_number == EPIPE;
  const auto why = [this, is_end, error_number] {
    return is_end ? Error(Error::kConnectionLost,
                          QString("%1 closed the connection, or has ended").arg(peer_))
                  : SystemError(Error::kConnectionLost, QString("cannot read from %1").arg(peer_),
                                error_number);
  };
  End(MadeOr(why, out_of_memory_));
}

void LineChannel::OnRest() {
  const auto self = shared_from_this();
  rest_is_due_ = false;
  if (std::exchange(is_over_time_, false)) {
    Read(kBytesPerTurn, Turn::Short(), false);
    return;
  }
  auto turn = Turn::Short();
  DeliverLines(&turn);
}

}  // namespace RuntimeManager::host

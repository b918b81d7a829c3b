#include "fault_lane.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <utility>

#include "message_limits.h"
#include "support.h"
#include "trace.h"

namespace RuntimeManager::host {
namespace {

using Kind = FaultRule::Kind;

// What waits between the two sockets before no more is read.
constexpr std::size_t kMostWaiting = std::size_t{1} << 20U;
constexpr std::size_t kBytesPerRead = std::size_t{64} << 10U;
constexpr int kTickMs = 10;
constexpr quint64 kTicksPerSecond = 100;
constexpr unsigned kHundred = 100;
// No line of JSON and no Base64 goes on with it.
constexpr char kCorruption = '!';

bool IsOfMessages(const FaultRule& rule) {
  return rule.kind != Kind::kSlow && rule.kind != Kind::kKill && rule.kind != Kind::kStop &&
         rule.kind != Kind::kRefuse;
}

}  // namespace

FaultLane::FaultLane(Config config, int from, int to)
    : config_(std::move(config)),
      from_(from),
      to_(to),
      max_message_(ReadLimits().max_message),
      random_(config_.seed),
      readable_(from, QSocketNotifier::Read),
      writable_(to, QSocketNotifier::Write) {
  due_.setSingleShot(true);
  due_.setTimerType(Qt::PreciseTimer);
  tick_.setTimerType(Qt::PreciseTimer);
  writable_.setEnabled(false);
  QObject::connect(&due_, &QTimer::timeout, &due_, [this] { Write(); });
  QObject::connect(&tick_, &QTimer::timeout, &tick_, [this] { OnTick(); });
  QObject::connect(&readable_, &QSocketNotifier::activated, &due_, [this] { OnReadable(); });
  QObject::connect(&writable_, &QSocketNotifier::activated, &due_, [this] { OnWritable(); });
  for (const FaultRule& rule : config_.rules) {
    if (rule.kind == Kind::kSlow) {
      bytes_per_tick_ = std::max<quint64>(rule.least / kTicksPerSecond, 1);
      readable_.setEnabled(false);
      tick_.start(kTickMs);
      Record(rule.text);
    }
  }
}

bool FaultLane::IsFull() const {
  return held_size_ + static_cast<std::size_t>(out_.size()) > kMostWaiting;
}

void FaultLane::OnWritable() {
  ++vain_writes_;
  Write();
}

void FaultLane::OnReadable() {
  ++vain_reads_;
  Read(kBytesPerRead);
  Write();
}

void FaultLane::OnTick() {
  if (has_ended_) {
    tick_.stop();
  } else if (!IsFull()) {
    Read(bytes_per_tick_);
    Write();
  }
}

FaultLane::News FaultLane::Read(std::size_t most) {
  std::array<char, kBytesPerRead> buffer;
  const ssize_t size = RetryOnEintr(
      [&] { return ::recv(from_, buffer.data(), std::min(most, buffer.size()), MSG_DONTWAIT); });
  if (size < 0 && errno == EAGAIN && vain_reads_ < kMostVainTries) {
    return News::kNone;
  }
  vain_reads_ = 0;
  if (size <= 0) {
    has_ended_ = true;
    readable_.setEnabled(false);
    TakeLines();
    return News::kEnd;
  }
  in_.append(buffer.data(), static_cast<int>(size));
  TakeLines();
  return News::kSome;
}

// What is no whole line and never will be passes as it is.
void FaultLane::TakeLines() {
  int begin = 0;
  for (int end = in_.indexOf('\n', searched_); end >= 0; end = in_.indexOf('\n', begin)) {
    TakeLine(in_.mid(begin, end - begin));
    begin = end + 1;
  }
  in_.remove(0, begin);
  searched_ = in_.size();
  if (!in_.isEmpty() && (has_ended_ || static_cast<std::size_t>(in_.size()) > max_message_)) {
    searched_ = 0;
    Hold({Clock::now(), std::exchange(in_, {})});
  }
}

void FaultLane::Hold(Line line) {
  held_size_ += static_cast<std::size_t>(line.bytes.size());
  held_.push_back(std::move(line));
}

// `line` is without its end.
void FaultLane::TakeLine(QByteArray line) {
  Line held{Clock::now(), {}};
  int copies = 1;
  for (const FaultRule& rule : config_.rules) {
    if (IsOfMessages(rule) && Strikes(rule)) {
      Spoil(rule, line, held, copies);
    }
  }
  held.bytes = line + '\n';
  for (int i = 0; i < copies; ++i) {
    Hold(held);
  }
}

void FaultLane::Spoil(const FaultRule& rule, QByteArray& line, Line& held, int& copies) {
  switch (rule.kind) {
    case Kind::kDelay: {
      const quint64 ms = Draw(rule.least, rule.most);
      held.due += std::chrono::milliseconds(ms);
      Record(QString("delay %1ms").arg(ms));
      return;
    }
    case Kind::kDrop:
      copies = 0;
      break;
    case Kind::kDuplicate:
      copies *= 2;
      break;
    case Kind::kTruncate:
      line.truncate(line.size() / 2);
      break;
    default:
      if (!line.isEmpty()) {
        line[static_cast<int>(Draw(0, static_cast<quint64>(line.size()) - 1))] = kCorruption;
      }
  }
  Record(rule.text);
}

bool FaultLane::Strikes(const FaultRule& rule) {
  return rule.percent >= kHundred || Draw(1, kHundred) <= rule.percent;
}

// The same numbers with every standard library.
quint64 FaultLane::Draw(quint64 least, quint64 most) {
  return least == most ? least : least + random_() % (most - least + 1);
}

void FaultLane::Record(const QString& fault) const {
  TraceFault(config_.task,
             config_.way == FaultRule::Way::kToTask ? Direction::kSend : Direction::kReceive,
             fault);
}

void FaultLane::MoveDue(Clock::time_point now) {
  while (!held_.empty() && held_.front().due <= now) {
    held_size_ -= static_cast<std::size_t>(held_.front().bytes.size());
    out_ += held_.front().bytes;
    held_.pop_front();
  }
}

// Nobody reads any more, and nobody shall believe it.
void FaultLane::DropAll() {
  has_ended_ = true;
  out_.clear();
  held_.clear();
  held_size_ = 0;
  ::shutdown(from_, SHUT_RD);
}

void FaultLane::Write() {
  MoveDue(Clock::now());
  const ssize_t size = out_.isEmpty() ? 0 : RetryOnEintr([this] {
    return ::send(to_, out_.constData(), static_cast<std::size_t>(out_.size()),
                  MSG_DONTWAIT | MSG_NOSIGNAL);
  });
  vain_writes_ = size < 0 ? vain_writes_ : 0;
  if (size < 0 && (errno != EAGAIN || vain_writes_ >= kMostVainTries)) {
    DropAll();
  }
  const auto lines = size > 0 ? out_.left(static_cast<int>(size)).count('\n') : 0;
  out_.remove(0, static_cast<int>(std::max<ssize_t>(size, 0)));
  writable_.setEnabled(!out_.isEmpty());
  readable_.setEnabled(!has_ended_ && !IsFull() && bytes_per_tick_ == 0);
  if (!held_.empty()) {
    const auto rest =
        std::chrono::ceil<std::chrono::milliseconds>(held_.front().due - Clock::now());
    due_.start(std::max(rest, std::chrono::milliseconds(0)));
  }
  CloseIfDone();
  for (auto i = lines; i > 0; --i) {
    config_.on_delivered();
  }
}

void FaultLane::CloseIfDone() {
  if (has_ended_ && held_.empty() && out_.isEmpty()) {
    readable_.setEnabled(false);
    ::shutdown(to_, SHUT_WR);
  }
}

bool FaultLane::Drain() {
  while (!has_ended_ && !IsFull() && Read(kBytesPerRead) == News::kSome) {
  }
  const bool left_some = !has_ended_ && IsFull();
  MoveDue(Clock::time_point::max());
  const auto waiting = out_.size();
  Write();
  return out_.size() < waiting && (left_some || !out_.isEmpty());
}

}  // namespace RuntimeManager::host

#include "trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <algorithm>
#include <array>
#include <atomic>
#include <ctime>

#include "support.h"
#include "unique_fd.h"

namespace RuntimeManager::host {
namespace {

constexpr mode_t kTraceMode = 0600;  // messages are nobody else's business

QString WhyNotOpen(int error_number) {
  // Of a pipe without a reader.
  if (error_number == ENXIO) {
    return QStringLiteral("it is not a regular file, and writing to it could block the process");
  }
  return error_number == ELOOP ? QStringLiteral("it is a symbolic link") : ErrnoText(error_number);
}

// Why an open file is not fit for the record; empty when it is, and it is then closed to others.
// Only a regular file takes everything at once: a pipe or a terminal makes its writer wait for a
// reader, and kills one that has lost it.
QString WhyUnfit(int file) {
  struct stat facts {};
  if (::fstat(file, &facts) != 0) {
    return ErrnoText(errno);
  }
  if (!S_ISREG(facts.st_mode)) {
    return WhyNotOpen(ENXIO);
  }
  if (facts.st_uid != ::geteuid()) {
    return QString("it belongs to the user with id %1, and messages are nobody else's business")
        .arg(facts.st_uid);
  }
  return ::fchmod(file, kTraceMode) == 0
             ? QString()
             : "it cannot be closed to other users: " + ErrnoText(errno);
}

UniqueFd OpenFile(const QByteArray& path, QString* why_not) {
  // A link may lead into any file of the user's. A pipe is not waited for here either.
  constexpr int kFlags =
      O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  UniqueFd file(::open(path.constData(), kFlags, kTraceMode));
  *why_not = file.IsValid() ? WhyUnfit(file.Get()) : WhyNotOpen(errno);
  if (!why_not->isEmpty()) {
    file.Reset();
  }
  return file;
}

int OpenTrace() {
  const QByteArray path = Variable("RUNTIME_MANAGER_TRACE");
  if (path.isEmpty()) {
    return -1;
  }
  QString why_not;
  UniqueFd file = OpenFile(path, &why_not);
  if (!file.IsValid()) {
    Warn(QString("no record is kept: RUNTIME_MANAGER_TRACE '%1' cannot be used: %2")
             .arg(QString::fromUtf8(path), why_not));
  }
  // Until the end of the process.
  return file.Release();
}

QByteArray Compact(const QJsonObject& object) {
  return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// Without the braces.
QByteArray Members(const QJsonObject& object) {
  const QByteArray text = Compact(object);
  return text.mid(1, text.size() - 2);
}

QByteArray Head(const QString& task, long long time) {
  return "{\"time\":" + QByteArray::number(time) + ",\"pid\":" + QByteArray::number(::getpid()) +
         ',' + Members({{"task", task}});
}

// The line up to the value of its last member.
QByteArray MessageHead(const QString& task, Direction direction, long long time,
                       const QByteArray& last) {
  return Head(task, time) +
         ",\"direction\":" + (direction == Direction::kSend ? "\"send\"" : "\"receive\"") + ',' +
         last;
}

void WarnOnce(const QString& why) {
  static std::atomic_flag warned = ATOMIC_FLAG_INIT;
  if (warned.test_and_set()) {
    return;
  }
  Warn("the record in RUNTIME_MANAGER_TRACE has gaps: " + why);
}

iovec PartOf(std::string_view text) { return {const_cast<char*>(text.data()), text.size()}; }

// One call for the whole line: lines of several processes do not mix.
void Write(int file, const QByteArray& head, std::initializer_list<std::string_view> json) {
  constexpr std::size_t kMostPieces = 3;
  std::array<iovec, kMostPieces + 2> parts{};
  auto* end = parts.data();
  *end++ = PartOf({head.constData(), static_cast<std::size_t>(head.size())});
  end = std::transform(json.begin(), json.end(), end, PartOf);
  *end++ = PartOf("}\n");
  const ssize_t written = RetryOnEintr(
      [&] { return ::writev(file, parts.data(), static_cast<int>(end - parts.data())); });
  if (written < 0) {
    WarnOnce(ErrnoText(errno));
    return;
  }
  std::size_t whole = 0;
  std::for_each(parts.data(), end, [&whole](const iovec& part) { whole += part.iov_len; });
  if (static_cast<std::size_t>(written) < whole) {
    WarnOnce(QStringLiteral("a line was cut short"));
  }
}

int RecordFile() {
  static const int file = OpenTrace();
  return file;
}

}  // namespace

bool IsRecorded() { return RecordFile() >= 0; }

// One clock for all processes, never set back, and small enough for readers that keep numbers as
// doubles.
long long RecordTime() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  constexpr long long kNanosecondsPerSecond = 1'000'000'000;
  return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

void Trace(const QString& task, Direction direction, std::initializer_list<std::string_view> json,
           long long time) {
  if (IsRecorded()) {
    Write(RecordFile(),
          MessageHead(task, direction, time == 0 ? RecordTime() : time, "\"envelope\":"), json);
  }
}

void TraceFault(const QString& task, Direction direction, const QString& fault) {
  if (IsRecorded()) {
    Write(RecordFile(), MessageHead(task, direction, RecordTime(), Members({{"fault", fault}})),
          {});
  }
}

void TraceLinesSent(const QString& task, std::string_view bytes, std::size_t from, std::size_t to,
                    long long time) {
  if (!IsRecorded()) {
    return;
  }
  for (std::size_t end = bytes.find('\n', from); end < to; end = bytes.find('\n', end + 1)) {
    const std::size_t before = end == 0 ? std::string_view::npos : bytes.rfind('\n', end - 1);
    const std::size_t begin = before == std::string_view::npos ? 0 : before + 1;
    Trace(task, Direction::kSend, {bytes.substr(begin, end - begin)}, time);
  }
}

void TraceEvent(const QString& task, const char* event, const QJsonObject& more, long long time) {
  if (!IsRecorded()) {
    return;
  }
  const QByteArray head =
      Head(task, time == 0 ? RecordTime() : time) + ",\"event\":\"" + event + '"';
  Write(RecordFile(), more.isEmpty() ? head : head + ',' + Members(more), {});
}

}  // namespace RuntimeManager::host

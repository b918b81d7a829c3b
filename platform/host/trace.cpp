#include "trace.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <atomic>
#include <ctime>

#include "support.h"

namespace RuntimeManager::host {
namespace {

constexpr mode_t kTraceMode = 0600;  // messages are nobody else's business

int OpenTrace() {
  const QByteArray path = Variable("RUNTIME_MANAGER_TRACE");
  if (path.isEmpty()) return -1;
  const int file =
      ::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, kTraceMode);
  if (file < 0) {
    Warn(QString("no record is kept: cannot open RUNTIME_MANAGER_TRACE '%1': %2")
             .arg(QString::fromUtf8(path), ErrnoText(errno)));
  }
  return file;
}

// Nanoseconds of the machine's run: one clock for all processes, never set back, and small enough
// for readers that keep numbers as doubles.
long long Now() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  constexpr long long kNanosecondsPerSecond = 1'000'000'000;
  return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

QByteArray Head(const QString& task, Direction direction) {
  QByteArray quoted = QJsonDocument(QJsonObject{{"task", task}}).toJson(QJsonDocument::Compact);
  quoted = quoted.mid(1, quoted.size() - 2);
  return "{\"time\":" + QByteArray::number(Now()) + ",\"pid\":" + QByteArray::number(::getpid()) +
         ',' + quoted +
         ",\"direction\":" + (direction == Direction::kSend ? "\"send\"" : "\"receive\"") +
         ",\"envelope\":";
}

void WarnOnce(const QString& why) {
  static std::atomic_flag warned = ATOMIC_FLAG_INIT;
  if (warned.test_and_set()) return;
  Warn("the record in RUNTIME_MANAGER_TRACE has gaps: " + why);
}

}  // namespace

void Trace(const QString& task, Direction direction, const char* text, std::size_t size) {
  static const int file = OpenTrace();
  if (file < 0) return;
  QByteArray head = Head(task, direction);
  char tail[] = {'}', '\n'};
  // One call for the whole line: lines of several processes do not mix.
  const iovec parts[] = {{head.data(), static_cast<std::size_t>(head.size())},
                         {const_cast<char*>(text), size},
                         {tail, sizeof(tail)}};
  const auto whole = static_cast<ssize_t>(parts[0].iov_len + size + sizeof(tail));
  const ssize_t written =
      RetryOnEintr([&parts] { return ::writev(file, parts, std::size(parts)); });
  if (written < 0) WarnOnce(ErrnoText(errno));
  if (written >= 0 && written < whole) WarnOnce(QStringLiteral("a line was cut short"));
}

}  // namespace RuntimeManager::host

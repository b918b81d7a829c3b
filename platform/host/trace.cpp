#include "trace.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <algorithm>
#include <array>
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
  if (written < 0) return WarnOnce(ErrnoText(errno));
  std::size_t whole = 0;
  std::for_each(parts.data(), end, [&whole](const iovec& part) { whole += part.iov_len; });
  if (static_cast<std::size_t>(written) < whole) WarnOnce(QStringLiteral("a line was cut short"));
}

}  // namespace

void Trace(const QString& task, Direction direction, std::initializer_list<std::string_view> json) {
  static const int file = OpenTrace();
  if (file >= 0) Write(file, Head(task, direction), json);
}

}  // namespace RuntimeManager::host

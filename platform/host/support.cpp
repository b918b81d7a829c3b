#include "support.h"

#include <poll.h>
#include <unistd.h>

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>
#include <QtCore/QMetaObject>
#include <QtCore/QThread>
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <system_error>

#include "sigpipe_guard.h"

namespace RuntimeManager::host {
namespace {

bool IsNameCharacter(QChar character) {
  const ushort code = character.unicode();
  return (code >= 'A' && code <= 'Z') || (code >= 'a' && code <= 'z') ||
         (code >= '0' && code <= '9') || code == '.' || code == '_' || code == '-';
}

Q_LOGGING_CATEGORY(Log, "runtimemanager")

// A pipe that takes anything takes PIPE_BUF bytes at once, which are 4096; the log's own prefix
// shall fit in, too.
constexpr int kMostOfWarning = 2000;

// Bytes of the longest UTF-8 character.
constexpr int kLongestCharacter = 4;

// Lines that standard error did not take.
std::atomic<int> dropped_warnings{0};

bool IsInsideCharacter(const QByteArray& utf8, int at) { return (utf8.at(at) & 0xC0) == 0x80; }

constexpr int kShownOfValue = 100;

// Whether nobody has asked so for this text yet.
bool IsFirstTime(const QByteArray& text) {
  static std::mutex mutex;
  static std::set<QByteArray> known;
  const std::lock_guard lock(mutex);
  return known.insert(text).second;
}

// The length of the UTF-8 character that `text` begins with; 0 when it begins with something else,
// or with a control character.
int ShowableLength(const QByteArray& text) {
  for (int length = 1; length <= std::min(text.size(), kLongestCharacter); ++length) {
    const QByteArray bytes = text.left(length);
    const QString decoded = QString::fromUtf8(bytes);
    if (decoded.toUtf8() == bytes) {
      return decoded.at(0).category() == QChar::Other_Control ? 0 : length;
    }
  }
  return 0;
}

QByteArray EscapeOf(char byte) {
  if (byte == '\n') {
    return "\\n";
  }
  if (byte == '\t') {
    return "\\t";
  }
  return "\\x" + QByteArray(1, byte).toHex();
}

QByteArray EscapedBytes(const QByteArray& text) {
  QByteArray escaped;
  for (int at = 0; at < text.size();) {
    const QByteArray here = text.mid(at, kLongestCharacter);
    const int length = ShowableLength(here);
    escaped += length > 0 ? here.left(length) : EscapeOf(here.at(0));
    at += std::max(length, 1);
  }
  return escaped;
}

// At most the first `most` bytes; a character that would be cut is left out.
QByteArray FirstBytes(const QByteArray& text, int most) {
  int end = std::min(most, text.size());
  for (int i = 0; i < kLongestCharacter && end > 0 && end < text.size(); ++i) {
    end -= IsInsideCharacter(text, end) ? 1 : 0;
  }
  return text.left(end);
}

QByteArray LastBytes(const QByteArray& text, int most) {
  int start = std::max(text.size() - most, 0);
  for (int i = 0; i < kLongestCharacter && start > 0 && start < text.size(); ++i) {
    start += IsInsideCharacter(text, start) ? 1 : 0;
  }
  return text.mid(start);
}

}  // namespace

void Warn(const QString& text) {
  if (!Log().isWarningEnabled()) {
    return;
  }
  if (!TakesBytes(STDERR_FILENO, 0)) {
    ++dropped_warnings;
    return;
  }
  const int dropped = dropped_warnings.exchange(0);
  const QString missing =
      dropped == 0 ? QString()
                   : QString(" (%1 lines before this one are missing: standard error took nothing)")
                         .arg(dropped);
  const QByteArray line = EscapedHead(text.toUtf8(), kMostOfWarning).toUtf8();
  // The log goes to standard error, which may be a pipe without a reader.
  const SigpipeGuard guard;
  qCWarning(Log, "%s%s", line.constData(), qUtf8Printable(missing));
}

QString Escaped(const QByteArray& text) { return QString::fromUtf8(EscapedBytes(text)); }

QString EscapedHead(const QByteArray& text, int most) {
  const QByteArray head = FirstBytes(text, most);
  const QByteArray escaped = EscapedBytes(head);
  const QByteArray shown = FirstBytes(escaped, most);
  const bool is_all = head.size() == text.size() && shown.size() == escaped.size();
  return QString::fromUtf8(shown) + (is_all ? "" : "...");
}

QString EscapedTail(const QByteArray& text, int most) {
  const QByteArray tail = LastBytes(text, most);
  const QByteArray escaped = EscapedBytes(tail);
  const QByteArray shown = LastBytes(escaped, most);
  const bool is_all = tail.size() == text.size() && shown.size() == escaped.size();
  return (is_all ? "" : "...") + QString::fromUtf8(shown);
}

bool TakesBytes(int descriptor, int wait_ms) {
  pollfd state{descriptor, POLLOUT, 0};
  return RetryOnEintr([&state, wait_ms] { return ::poll(&state, 1, wait_ms); }) > 0;
}

QString ErrnoText(int error_number) {
  return QString::fromStdString(std::generic_category().message(error_number));
}

QString SignalText(int signal) {
  const char* name = ::sigabbrev_np(signal);
  const QString shown = name != nullptr      ? QStringLiteral("SIG") + name
                        : signal >= SIGRTMIN ? QString("SIGRTMIN+%1").arg(signal - SIGRTMIN)
                                             : QStringLiteral("of no name");
  return QString("%1 (%2)").arg(signal).arg(shown);
}

QString DurationText(qint64 ms) {
  constexpr qint64 kSecond = 1000;
  constexpr qint64 kMinute = 60 * kSecond;
  constexpr qint64 kHour = 60 * kMinute;
  if (ms < kSecond) {
    return QString("%1 ms").arg(ms);
  }
  if (ms < kMinute) {
    return QString("%1.%2 s").arg(ms / kSecond).arg(ms % kSecond / 100);
  }
  if (ms < kHour) {
    return QString("%1 min %2 s").arg(ms / kMinute).arg(ms % kMinute / kSecond);
  }
  return QString("%1 h %2 min").arg(ms / kHour).arg(ms % kHour / kMinute);
}

Error SystemError(Error::Code code, const QString& what, int error_number) {
  return {code, what + QStringLiteral(": ") + ErrnoText(error_number)};
}

Error CheckName(const QString& kind, const QString& name, int longest) {
  const bool fits = !name.isEmpty() && name.size() <= longest && !name.startsWith('.') &&
                    std::all_of(name.begin(), name.end(), IsNameCharacter);
  if (fits) {
    return {};
  }
  const QString shown = EscapedHead(name.toUtf8(), longest);
  return {
      Error::kInvalidArgument,
      QString("'%1' cannot be the name of %2: it must be 1 to %3 of the characters A-Z a-z 0-9 . "
              "_ - and must not begin with a dot")
          .arg(shown, kind)
          .arg(longest)};
}

QByteArray Variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? QByteArray() : QByteArray(value);
}

std::optional<std::size_t> NumberOf(const QByteArray& text, std::size_t largest) {
  bool is_number = false;
  const qulonglong value = text.toULongLong(&is_number, 10);
  return is_number && value >= 1 && value <= largest ? std::optional<std::size_t>(value)
                                                     : std::nullopt;
}

QString WhyNoNumber(const NumberRule& rule, const QByteArray& text) {
  return QString("%1 is '%2': it must be a number of %3 from 1 to %4; the default of %5 holds")
      .arg(rule.variable, EscapedHead(text, kShownOfValue), rule.unit)
      .arg(rule.largest)
      .arg(rule.by_default);
}

std::size_t NumberFrom(const NumberRule& rule) {
  const QByteArray text = Variable(rule.variable);
  if (const auto number = NumberOf(text, rule.largest)) {
    return *number;
  }
  if (!text.isEmpty() && IsFirstTime(rule.variable + ('=' + text))) {
    Warn(WhyNoNumber(rule, text));
  }
  return rule.by_default;
}

void Post(QObject* context, std::function<void()> call) {
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the event owns what Qt allocates
  QMetaObject::invokeMethod(context, std::move(call), Qt::QueuedConnection);
}

bool HasEventLoop() {
  return QCoreApplication::instance() != nullptr &&
         QAbstractEventDispatcher::instance(QThread::currentThread()) != nullptr;
}

}  // namespace RuntimeManager::host

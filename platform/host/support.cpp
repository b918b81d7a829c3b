#include "support.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>
#include <QtCore/QMetaObject>
#include <QtCore/QThread>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
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

}  // namespace

void Warn(const QString& text) {
  // The log goes to standard error, which may be a pipe without a reader.
  const SigpipeGuard guard;
  qCWarning(Log, "%s", qUtf8Printable(text));
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
  const QString shown = name.size() <= longest ? name : name.left(longest) + "...";
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

void Post(QObject* context, std::function<void()> call) {
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): the event owns what Qt allocates
  QMetaObject::invokeMethod(context, std::move(call), Qt::QueuedConnection);
}

bool HasEventLoop() {
  return QCoreApplication::instance() != nullptr &&
         QAbstractEventDispatcher::instance(QThread::currentThread()) != nullptr;
}

}  // namespace RuntimeManager::host

// What every file of the host needs: the log category, error texts, names, retries.
#ifndef RUNTIME_MANAGER_HOST_SUPPORT_H
#define RUNTIME_MANAGER_HOST_SUPPORT_H

#include <RuntimeManager/Error.h>

#include <QtCore/QByteArray>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <optional>

namespace RuntimeManager::host {

// A line in the log, in the category "runtimemanager": escaped, and cut to what a pipe takes at
// once. Standard error is never waited for: while it takes nothing, lines are dropped and counted,
// and the next one tells the count. Never raises SIGPIPE. Any thread.
void Warn(const QString& text);

// A peer's text, in UTF-8, for a log line or an error: control characters and what is not UTF-8
// come as "\n", "\t" or, byte by byte, in the form "\x1b", so that it can neither begin a second
// line nor move the cursor of a terminal.
QString Escaped(const QByteArray& text);
// The same, cut to its first, or its last, `most` bytes, with "..." where something is missing.
QString EscapedHead(const QByteArray& text, int most);
QString EscapedTail(const QByteArray& text, int most);

// A name of a task becomes a file name: long enough for a reversed domain name.
constexpr int kMaxTaskName = 128;
// A name of an intent becomes the last part of a socket path that begins with "/proc/self/fd/" and
// a descriptor, and such a path has 107 bytes.
constexpr int kMaxIntentName = 80;

// The text of an error number.
QString ErrnoText(int error_number);
// The number and the name of a signal: "9 (SIGKILL)".
QString SignalText(int signal);
// How long something took, as a person says it: "12 ms", "1.2 s", "3 min 20 s", "2 h 5 min".
QString DurationText(qint64 ms);
// `what` and the text of the error number, joined by a colon.
Error SystemError(Error::Code code, const QString& what, int error_number);

// No error when `name` is 1 to `longest` of A-Z a-z 0-9 . _ - without a leading dot; else an error
// that names the rule. `kind` is what the name is of: "task".
Error CheckName(const QString& kind, const QString& name, int longest);

// The value of an environment variable; empty when it is unset.
QByteArray Variable(const char* name);

// A whole number from 1 to `largest` that a variable may set; `unit` says what is counted.
struct NumberRule {
  const char* variable;
  const char* unit;
  std::size_t by_default;
  std::size_t largest;
};
// What the variable sets; the default when it is unset, and for any other value, after one warning
// in the life of the process.
std::size_t NumberFrom(const NumberRule& rule);
// The number in a variable's text; none when it breaks the rule.
std::optional<std::size_t> NumberOf(const QByteArray& text, std::size_t largest);
QString WhyNoNumber(const NumberRule& rule, const QByteArray& text);

// Calls a function that reports failure as -1 again as long as a signal interrupts it.
template <typename Call>
auto RetryOnEintr(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) {
    result = call();
  }
  return result;
}

// How often in a row a descriptor may announce news and have none before it is taken for broken:
// waiting for it would take all of a processor, and have no end.
constexpr int kMostVainTries = 100;

// Waits until a descriptor can be written to, up to `wait_ms`. Also true when writing would fail.
bool TakesBytes(int descriptor, int wait_ms);

// Runs `call` from the event loop of `context`'s thread, unless `context` is destroyed first.
// Any thread that keeps `context` alive during this call.
void Post(QObject* context, std::function<void()> call);

// Whether the calling thread can still get events: a loop that may run again.
bool HasEventLoop();

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_SUPPORT_H

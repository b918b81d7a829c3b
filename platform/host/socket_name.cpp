#include "socket_name.h"

#include <unistd.h>

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QList>
#include <QtCore/QStringList>
#include <algorithm>
#include <atomic>
#include <optional>

namespace RuntimeManager::host {
namespace {

const QString kHidden = QStringLiteral(".");

const QString kEnding = QStringLiteral(".sock");

// The process that made a socket.
struct Starter {
  QByteArray pid;
  QByteArray start_time;
};

bool IsNumber(const QString& text) {
  return !text.isEmpty() && std::all_of(text.begin(), text.end(), [](QChar character) {
    return '0' <= character && character <= '9';
  });
}

// Reads a name, "PID-START_TIME-NUMBER.sock", which may be hidden; nothing when it is no such name.
// By hand, because every task does it as it starts: to compile a regular expression takes longer
// than the handshake.
std::optional<Starter> StarterOf(QString file) {
  if (IsHiddenSocketName(file)) {
    file.remove(0, kHidden.size());
  }
  if (!file.endsWith(kEnding)) {
    return std::nullopt;
  }
  file.chop(kEnding.size());
  const QStringList numbers = file.split('-');
  if (numbers.size() != 3 || !std::all_of(numbers.begin(), numbers.end(), &IsNumber)) {
    return std::nullopt;
  }
  return Starter{numbers[0].toLatin1(), numbers[1].toLatin1()};
}

// When the process started, in clock ticks since the machine did; empty when there is no such
// process. With the process id it names one process of a machine's run.
QByteArray StartTime(const QByteArray& pid) {
  // The entry of the first thread; an emulator makes up the process's own.
  QFile stat(QString::fromLatin1("/proc/" + pid + "/task/" + pid + "/stat"));
  if (!stat.open(QIODevice::ReadOnly)) {
    return {};
  }
  const QByteArray text = stat.readAll();
  // The second field is the program's name in parentheses, which may hold anything. The start time
  // is field 22, and the first field after the name is 3.
  constexpr int kStartTimeAfterName = 22 - 3;
  const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
  return fields.value(kStartTimeAfterName);
}

}  // namespace

QString UniqueSocketName() {
  static std::atomic<unsigned> counter{0};
  const QByteArray pid = QByteArray::number(::getpid());
  return QString::fromLatin1(pid + '-' + StartTime(pid) + '-') + QString::number(++counter) +
         kEnding;
}

QString HiddenSocketName(const QString& name) { return kHidden + name; }

bool IsHiddenSocketName(const QString& file) { return file.startsWith(kHidden); }

bool IsSocketName(const QString& file) { return StarterOf(file).has_value(); }

bool HasNoStarter(const QString& file) {
  const auto starter = StarterOf(file);
  return starter && StartTime(starter->pid) != starter->start_time;
}

}  // namespace RuntimeManager::host

#include "socket_name.h"

#include <unistd.h>

#include <QtCore/QByteArray>
#include <QtCore/QFile>
#include <QtCore/QList>
#include <QtCore/QRegularExpression>
#include <QtCore/QRegularExpressionMatch>
#include <atomic>

namespace RuntimeManager::host {
namespace {

const QString kHidden = QStringLiteral(".");

QRegularExpressionMatch Match(const QString& file) {
  static const QRegularExpression form(R"(\A\.?([0-9]+)-([0-9]+)-[0-9]+\.sock\z)");
  return form.match(file);
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
         QStringLiteral(".sock");
}

QString HiddenSocketName(const QString& name) { return kHidden + name; }

bool IsHiddenSocketName(const QString& file) { return file.startsWith(kHidden); }

bool IsSocketName(const QString& file) { return Match(file).hasMatch(); }

bool HasNoStarter(const QString& file) {
  const QRegularExpressionMatch match = Match(file);
  return match.hasMatch() &&
         StartTime(match.captured(1).toLatin1()) != match.captured(2).toLatin1();
}

}  // namespace RuntimeManager::host

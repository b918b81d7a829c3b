#include "task_end.h"

#include "exec_failure.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {

QString TaskTitle(const QString& name, pid_t process) {
  return QString("the task '%1' (process %2)").arg(name).arg(process);
}

Error WhyNeverRan(const QString& name, const QByteArray& program, const ChildEnd& end) {
  const auto why = [&] {
    return Error(Error::kStartFailed, QString("the task '%1' cannot be started: %2")
                                          .arg(name, ExecFailureText(program, end.exec_error)));
  };
  return MadeOr(why, OutOfMemory(Error::kStartFailed));
}

Error WhyEnded(const QString& name, pid_t process, const ChildEnd& end) {
  const auto code = end.killed ? Error::kTaskKilled : Error::kTaskExited;
  const auto why = [&] {
    QString text = TaskTitle(name, process) + ' ' + end.how;
    if (!end.last_lines.isEmpty()) {
      text += "; its last words: " + end.last_lines;
    }
    return Error(code, text);
  };
  return MadeOr(why, OutOfMemory(code));
}

}  // namespace RuntimeManager::host

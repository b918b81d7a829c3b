#include <RuntimeManager/Inspect.h>
#include <sys/stat.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <algorithm>
#include <map>
#include <utility>

#include "exec_failure.h"
#include "intent_owner.h"
#include "message_limits.h"
#include "socket_folder.h"
#include "support.h"
#include "task_finder.h"

namespace RuntimeManager::inspect {
namespace {

using host::SocketFolder;

QString WhyNotRun(const QString& path) {
  const QByteArray interpreter = host::InterpreterOf(path.toUtf8());
  const QString named = QFile::decodeName(interpreter);
  if (!interpreter.isEmpty() && !QFile::exists(named)) {
    return QString("its interpreter '%1' is missing: install it, or mend its first line")
        .arg(named);
  }
  return interpreter.isEmpty() ? QStringLiteral(
                                     "it is no program of this machine, nor a script "
                                     "that begins with #! and its interpreter")
                               : QString();
}

QString ProblemOf(const QString& name, const QString& path) {
  const Error bad_name = host::CheckName("a task", name, host::kMaxTaskName);
  if (bad_name.isError()) {
    return bad_name.message();
  }
  bool exists = false;
  QString problem = host::WhyNotProgram(path, &exists);
  if (!exists) {
    return QStringLiteral("it is a link that leads nowhere: remove it");
  }
  return problem.isEmpty() ? WhyNotRun(path) : problem;
}

// The first executable of a name is the one that is started, whether it can run or not.
bool IsExecutable(const QString& path) {
  bool exists = false;
  return host::WhyNotProgram(path, &exists).isEmpty() && exists;
}

std::vector<Socket> SocketsIn(const QString& folder_path, const QString& suffix) {
  const SocketFolder folder = SocketFolder::Look(folder_path);
  if (!folder.IsValid()) {
    return {};
  }
  std::vector<Socket> found;
  for (const QString& name : folder.ListNames().value_or(std::vector<QString>())) {
    struct stat facts {};
    const QString path = folder.PathOf(name);
    if (name.endsWith(suffix) && ::lstat(path.toUtf8().constData(), &facts) == 0 &&
        S_ISSOCK(facts.st_mode)) {
      found.push_back({name, path, folder.Probe(name) != ECONNREFUSED});
    }
  }
  std::sort(found.begin(), found.end(),
            [](const Socket& a, const Socket& b) { return a.name < b.name; });
  return found;
}

Limit LimitOf(const host::NumberRule& rule) {
  Limit limit{rule.variable, rule.unit, rule.by_default, rule.by_default, {}};
  const QByteArray text = host::Variable(rule.variable);
  if (text.isEmpty()) {
    return limit;
  }
  if (const auto number = host::NumberOf(text, rule.largest)) {
    limit.value = *number;
    return limit;
  }
  limit.problem = host::WhyNoNumber(rule, text);
  return limit;
}

}  // namespace

QStringList taskFolders() { return host::TaskFolders(); }

std::vector<FoundTask> tasks() {
  std::vector<FoundTask> found;
  std::map<QString, QString> taken;  // the folders, by the names that they give
  QStringList folders = host::TaskFolders();
  folders.removeDuplicates();
  for (const QString& folder : folders) {
    for (const QString& name : QDir(folder).entryList(
             QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name)) {
      const QString path = folder + '/' + name;
      FoundTask task{name, folder, ProblemOf(name, path)};
      if (IsExecutable(path)) {
        const auto [first, is_first] = taken.emplace(name, folder);
        if (!is_first) {
          task.problem = QString("the task of that name in '%1' comes first").arg(first->second);
        }
      }
      found.push_back(std::move(task));
    }
  }
  return found;
}

QString interpreterOf(const QString& path) {
  return QFile::decodeName(host::InterpreterOf(path.toUtf8()));
}

RuntimeFolder runtimeFolder() {
  RuntimeFolder facts;
  facts.path = SocketFolder::TasksPath();
  const SocketFolder folder = SocketFolder::Look(facts.path);
  if (!folder.IsValid()) {
    facts.exists = errno != ENOENT;
    facts.problem = facts.exists ? "it cannot be opened: " + host::ErrnoText(errno) : QString();
    return facts;
  }
  struct stat status {};
  facts.exists = true;
  facts.mode = ::fstat(folder.Descriptor(), &status) == 0 ? status.st_mode & 07777U : 0;
  facts.problem = folder.Check().message();
  return facts;
}

std::vector<Socket> taskSockets() {
  return SocketsIn(SocketFolder::TasksPath(), QStringLiteral(".sock"));
}

std::vector<Socket> intents() { return SocketsIn(SocketFolder::TasksPath() + "/intents", {}); }

std::vector<Limit> limits() {
  return {LimitOf(host::kMaxMessageRule), LimitOf(host::kMaxQueueRule),
          LimitOf(host::kIntentTimeoutRule)};
}

}  // namespace RuntimeManager::inspect

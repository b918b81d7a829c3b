#include "task_finder.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QStringList>

#include "support.h"

namespace RuntimeManager::host {
namespace {

QStringList FoldersOf(const char* variable) {
  return QString::fromUtf8(Variable(variable)).split(':', Qt::SkipEmptyParts);
}

// Where tasks are installed, from the place of this library, so that what is installed can be moved.
// An application's folder may hold a link to the library.
QString InstalledTasks() {
  Dl_info library{};
  ::dladdr(reinterpret_cast<const void*>(&FindTask), &library);
  const QString folder = QFileInfo(QFile::decodeName(library.dli_fname)).canonicalPath();
  return QDir::cleanPath(folder + "/" TARV_TASKS_FROM_LIBRARY);
}

Error NotFound(const QString& name, const QStringList& folders, const QStringList& obstacles) {
  const QString found =
      obstacles.isEmpty() ? QString("there is no such executable") : obstacles.join("; ");
  return {Error::kTaskNotFound,
          QString("the task '%1' cannot be started: %2; looked in: %3 (RUNTIME_MANAGER_TASK_PATH "
                  "adds folders)")
              .arg(name, found, folders.join(", "))};
}

}  // namespace

QString WhyNotProgram(const QString& path, bool* exists) {
  struct stat facts {};
  const QByteArray name = path.toUtf8();
  *exists = ::stat(name.constData(), &facts) == 0;
  if (!*exists) {
    return {};
  }
  if (!S_ISREG(facts.st_mode)) {
    return QString("'%1' is not a regular file").arg(path);
  }
  if (::access(name.constData(), X_OK) == 0) {
    return {};
  }
  return QString("'%1' is not executable: run chmod +x on it").arg(path);
}

QStringList TaskFolders() {
  QStringList folders = FoldersOf("RUNTIME_MANAGER_TASK_PATH");
  const QString executable = QFileInfo("/proc/self/exe").symLinkTarget();
  folders << QFileInfo(executable).path() + "/tasks" << InstalledTasks();
  return folders;
}

QString FindTask(const QString& name, Error* error) {
  *error = CheckName("a task", name, kMaxTaskName);
  if (error->isError()) {
    return {};
  }
  const QStringList folders = TaskFolders();
  QStringList obstacles;
  for (const QString& folder : folders) {
    QString path = folder + '/' + name;
    bool exists = false;
    const QString obstacle = WhyNotProgram(path, &exists);
    if (exists && obstacle.isEmpty()) {
      return path;
    }
    if (exists) {
      obstacles << obstacle;
    }
  }
  *error = NotFound(name, folders, obstacles);
  return {};
}

QString FindProgram(const QString& program) {
  if (program.contains('/')) {
    return program;
  }
  for (const QString& folder : FoldersOf("PATH")) {
    QString path = folder + '/' + program;
    bool exists = false;
    if (WhyNotProgram(path, &exists).isEmpty() && exists) {
      return path;
    }
  }
  return {};
}

}  // namespace RuntimeManager::host

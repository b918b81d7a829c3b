#include "task_request.h"

#include "process_exit.h"
#include "task_finder.h"

namespace RuntimeManager::host {
namespace {

// Whether this process can start tasks at all.
Error CheckProcess(const QString& name) {
  Error refusal = CheckOriginal();
  if (refusal.isError() || IsSeenByChildren()) {
    return refusal;
  }
  return {Error::kWrongState,
          QString("the task '%1' cannot be started: this process has called unshare() for another "
                  "pid namespace, in which its tasks would not see it; fork first")
              .arg(name)};
}

Error AddArguments(const QString& name, const QStringList& arguments, SpawnRequest* request) {
  for (const QString& argument : arguments) {
    if (argument.contains(QChar(0))) {
      return {
          Error::kInvalidArgument,
          QString("the task '%1' cannot be started: an argument holds a NUL character").arg(name)};
    }
    request->arguments.push_back(argument.toUtf8());
  }
  return {};
}

}  // namespace

Error MakeTaskRequest(const QString& name, const QStringList& arguments, SpawnRequest* request) {
  Error error = CheckProcess(name);
  if (error.isError()) {
    return error;
  }
  request->program = FindTask(name, &error).toUtf8();
  request->task_name = name.toUtf8();
  return error.isError() ? error : AddArguments(name, arguments, request);
}

}  // namespace RuntimeManager::host

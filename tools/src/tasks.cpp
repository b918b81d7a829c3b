// tasks: what can be started.
#include <RuntimeManager/Inspect.h>

#include <QtCore/QJsonArray>
#include <QtCore/QJsonObject>
#include <algorithm>
#include <string>

#include "exit_status.h"
#include "json.h"
#include "verbs.h"

namespace tarvctl {
namespace {

namespace inspect = RuntimeManager::inspect;

QJsonObject JsonOf(const inspect::FoundTask& task) {
  QJsonObject object{{"name", task.name}, {"folder", task.folder}};
  if (!task.problem.isEmpty()) {
    object.insert("problem", task.problem);
  }
  return object;
}

void PrintJson(const std::vector<inspect::FoundTask>& tasks, Output& output) {
  QJsonArray array;
  for (const auto& task : tasks) {
    array.append(JsonOf(task));
  }
  output.PrintLine(ToText(array, false));
}

void PrintNames(const std::vector<inspect::FoundTask>& tasks, Output& output) {
  for (const auto& task : tasks) {
    if (task.problem.isEmpty()) {
      output.PrintLine(task.name.toStdString());
    }
  }
}

void PrintTable(const std::vector<inspect::FoundTask>& tasks, Output& output) {
  std::size_t widest = 0;
  for (const auto& task : tasks) {
    widest = std::max(widest, task.name.toStdString().size());
  }
  for (const auto& task : tasks) {
    const std::string name = task.name.toStdString();
    const std::string padding(widest - name.size() + 2, ' ');
    const std::string problem = task.problem.toStdString();
    output.PrintLine(output.Paint(Colour::kBold, name) + padding + task.folder.toStdString() +
                     (problem.empty() ? "" : output.Paint(Colour::kRed, "  problem: " + problem)));
  }
}

}  // namespace

int RunTasks(const Request& request, Output& output) {
  const auto tasks = inspect::tasks();
  if (request.names) {
    PrintNames(tasks, output);
  } else if (request.json) {
    PrintJson(tasks, output);
  } else {
    PrintTable(tasks, output);
  }
  if (tasks.empty()) {
    output.Tell("no tasks in: " + inspect::taskFolders().join(", ").toStdString() +
                " (RUNTIME_MANAGER_TASK_PATH adds folders)");
  }
  return kDone;
}

}  // namespace tarvctl

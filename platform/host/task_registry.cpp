#include "task_registry.h"

#include <QtCore/QThread>
#include <algorithm>
#include <new>
#include <utility>

#include "process_exit.h"
#include "support.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {

TaskRegistry& TaskRegistry::Get() {
  // Never destroyed: objects that outlive static destruction still report here. Made without
  // memory: the end of a Task may be the first to ask for it.
  alignas(TaskRegistry) static unsigned char storage[sizeof(TaskRegistry)];
  static auto* const registry = new (storage) TaskRegistry;
  return *registry;
}

void TaskRegistry::AddTask(const QString& path, const QString& name, UniqueFd first) {
  const std::lock_guard lock(mutex_);
  tasks_[path] = {name, std::move(first)};
}

// A forked copy leaves the list as it is: closing its own descriptor is the copy's exit's business.
void TaskRegistry::RemoveTask(const QString& path) {
  if (IsForkedCopy()) {
    return;
  }
  const std::lock_guard lock(mutex_);
  tasks_.erase(path);
}

UniqueFd TaskRegistry::TakeConnection(const QString& path) {
  const std::lock_guard lock(mutex_);
  const auto found = tasks_.find(path);
  return found == tasks_.end() ? UniqueFd() : std::move(found->second.first);
}

bool TaskRegistry::HasTask(const QString& path) const {
  const std::lock_guard lock(mutex_);
  return tasks_.count(path) != 0;
}

QString TaskRegistry::NameOf(const QString& path) const {
  const std::lock_guard lock(mutex_);
  const auto found = tasks_.find(path);
  return found == tasks_.end() ? path : found->second.name;
}

void TaskRegistry::Watch(const QString& path, std::weak_ptr<TaskWatcher> watcher,
                         QObject* context) {
  const std::lock_guard lock(mutex_);
  watchers_.push_back({path, std::move(watcher), context});
}

void TaskRegistry::Unwatch(const QObject* context) {
  if (IsForkedCopy()) {
    return;
  }
  const std::lock_guard lock(mutex_);
  const auto is_of_context = [context](const Entry& entry) { return entry.context == context; };
  watchers_.erase(std::remove_if(watchers_.begin(), watchers_.end(), is_of_context),
                  watchers_.end());
}

TaskRegistry::Watchers TaskRegistry::WatchersOfThisThread(const QString& path) const {
  const std::lock_guard lock(mutex_);
  Watchers found;
  for (const Entry& entry : watchers_) {
    if (entry.path == path && entry.context->thread() == QThread::currentThread()) {
      found.push_back(entry.watcher);
    }
  }
  return found;
}

// Without memory to gather them, they read when they are told of the end.
void TaskRegistry::DrainTask(const QString& path) {
  const auto watchers = MadeOr([this, &path] { return WatchersOfThisThread(path); }, Watchers());
  for (const auto& weak : watchers) {
    if (const auto watcher = weak.lock()) {
      watcher->DrainTask();
    }
  }
}

void TaskRegistry::TellEnded(const QString& path, const Error& why) {
  {
    const std::lock_guard lock(mutex_);
    for (const Entry& entry : watchers_) {
      if (entry.path != path || entry.context->thread() == QThread::currentThread()) {
        continue;
      }
      Post(entry.context, [weak = entry.watcher, why] {
        if (const auto watcher = weak.lock()) {
          watcher->OnTaskEnded(why);
        }
      });
    }
  }
  for (const auto& weak : WatchersOfThisThread(path)) {
    if (const auto watcher = weak.lock()) {
      watcher->OnTaskEnded(why);
    }
  }
}

}  // namespace RuntimeManager::host

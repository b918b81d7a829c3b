// RuntimeManager::RuntimeDispatcher: what the runtime manager knows about this process.
#ifndef RUNTIME_MANAGER_RUNTIME_DISPATCHER_H
#define RUNTIME_MANAGER_RUNTIME_DISPATCHER_H

#include <RuntimeManager/Export.h>

#include <QtCore/QJsonObject>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <functional>
#include <memory>

namespace RuntimeManager {

// One per process, made on first use and never destroyed.
class RUNTIME_MANAGER_EXPORT RuntimeDispatcher : public QObject {
  Q_OBJECT

 public:
  // Answers an invocation. The first call counts, from any thread; when the last copy goes without
  // a call, the invoker is told that there will be no answer. A reply that comes when the invoker
  // waits no more is dropped.
  using Reply = std::function<void(const QJsonObject&)>;
  // Gets the second object of an invocation, which holds its parameters.
  using IntentHandler = std::function<void(const QJsonObject& parameters, Reply reply)>;

  // Any thread.
  static RuntimeDispatcher* instance();

  // The listening socket that the starter gave to this task, for TaskMessaging; -1 when the process
  // was not started as a task with a socket. The descriptor belongs to the dispatcher. Any thread.
  int localServerSocket() const;

  // Makes this process the owner of the intent `name` until it ends. `handler` runs once for each
  // invocation, on the thread of this call, which must run a Qt event loop. Names are as those of
  // tasks, up to 80 characters. A bad name, and a name that a live process owns already (this one
  // too), is a warning, and nothing changes. Any thread.
  void registerIntent(const QString& name, IntentHandler handler);

 private:
  RuntimeDispatcher();
  ~RuntimeDispatcher() override;

  class Private;
  std::unique_ptr<Private> d_;
};

}  // namespace RuntimeManager

#endif  // RUNTIME_MANAGER_RUNTIME_DISPATCHER_H

#ifndef STUB_RUNTIME_MANAGER_RUNTIME_DISPATCHER_H
#define STUB_RUNTIME_MANAGER_RUNTIME_DISPATCHER_H

#include <RuntimeManager/Error.h>

#include <QJsonObject>
#include <QObject>
#include <functional>

namespace RuntimeManager {

// Of a process that is no task and whose intents nobody invokes.
class STUB_EXPORT RuntimeDispatcher : public QObject {
  Q_OBJECT

 public:
  static RuntimeDispatcher* instance();
  int localServerSocket() const;
  void registerIntent(
      const QString& name,
      std::function<void(const QJsonObject&, std::function<void(const QJsonObject&)>)> handler);

 private:
  Reserve reserve_;
};

}  // namespace RuntimeManager

#endif  // STUB_RUNTIME_MANAGER_RUNTIME_DISPATCHER_H

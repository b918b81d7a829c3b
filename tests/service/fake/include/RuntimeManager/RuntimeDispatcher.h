#ifndef FAKE_RUNTIME_MANAGER_RUNTIME_DISPATCHER_H
#define FAKE_RUNTIME_MANAGER_RUNTIME_DISPATCHER_H

#include <RuntimeManager/Journal.h>

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <functional>
#include <map>
#include <utility>

namespace RuntimeManager {

// Keeps the registered handlers; the test calls them.
class RuntimeDispatcher : public QObject {
 public:
  static constexpr int kSocket = 42;
  using Reply = std::function<void(const QJsonObject&)>;
  using IntentHandler = std::function<void(const QJsonObject&, Reply)>;

  static RuntimeDispatcher* instance() {
    static RuntimeDispatcher dispatcher;
    return &dispatcher;
  }
  int localServerSocket() const { return kSocket; }
  void registerIntent(const QString& name, IntentHandler handler) {
    Journal::Get().Write("registerIntent " + name);
    handlers[name] = std::move(handler);
  }

  std::map<QString, IntentHandler> handlers;
};

}  // namespace RuntimeManager

#endif  // FAKE_RUNTIME_MANAGER_RUNTIME_DISPATCHER_H

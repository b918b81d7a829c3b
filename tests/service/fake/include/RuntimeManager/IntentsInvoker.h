#ifndef FAKE_RUNTIME_MANAGER_INTENTS_INVOKER_H
#define FAKE_RUNTIME_MANAGER_INTENTS_INVOKER_H

#include <RuntimeManager/Error.h>

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <vector>

namespace RuntimeManager {

// Keeps what is invoked; the test emits the replies.
class IntentsInvoker : public QObject {
  Q_OBJECT

 public:
  struct Invocation {
    QString name;
    QJsonObject first;
    QJsonObject second;
  };

  explicit IntentsInvoker(QObject* parent) : QObject(parent) { GetLatest() = this; }

  void invoke(const QString& name, const QJsonObject& first, const QJsonObject& second) {
    invocations.push_back({name, first, second});
    if (GetAllInvocations() != nullptr) {
      ++*GetAllInvocations();
    }
  }

  // Where invocations of any invoker are counted, if somewhere: for what happens as one dies.
  static std::size_t*& GetAllInvocations() {
    static std::size_t* count = nullptr;
    return count;
  }

  // The invoker made last.
  static IntentsInvoker*& GetLatest() {
    static IntentsInvoker* latest = nullptr;
    return latest;
  }

  std::vector<Invocation> invocations;

 Q_SIGNALS:
  void replyReceived(const QJsonObject& reply, const RuntimeManager::Error& error);
};

}  // namespace RuntimeManager

#endif  // FAKE_RUNTIME_MANAGER_INTENTS_INVOKER_H

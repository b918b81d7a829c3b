#ifndef FAKE_RUNTIME_MANAGER_INTENTS_INVOKER_H
#define FAKE_RUNTIME_MANAGER_INTENTS_INVOKER_H

#include <RuntimeManager/Error.h>
#include <RuntimeManager/Journal.h>

#include <QJsonDocument>
#include <QJsonObject>
#include <QObject>
#include <QString>
#include <functional>
#include <utility>
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

  explicit IntentsInvoker(QObject* parent) : QObject(parent) {
    GetLatest() = this;
    Journal::Get().Write(parent == nullptr ? "IntentsInvoker" : "IntentsInvoker of a parent");
  }
  ~IntentsInvoker() override { Journal::Get().Write("~IntentsInvoker"); }

  void invoke(const QString& name, const QJsonObject& first, const QJsonObject& second) {
    Journal::Get().Write("invoke " + name + ' ' + Compact(first) + ' ' + Compact(second));
    invocations.push_back({name, first, second});
    if (const auto action = std::exchange(on_invoke, nullptr)) {
      action();
    }
  }

  // The invoker made last.
  static IntentsInvoker*& GetLatest() {
    static IntentsInvoker* latest = nullptr;
    return latest;
  }

  std::vector<Invocation> invocations;
  std::function<void()> on_invoke;  // called as the next invoke() ends

 Q_SIGNALS:
  void replyReceived(const QJsonObject& reply, const RuntimeManager::Error& error);

 private:
  static QString Compact(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
  }
};

}  // namespace RuntimeManager

#endif  // FAKE_RUNTIME_MANAGER_INTENTS_INVOKER_H

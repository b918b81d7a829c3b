#ifndef STUB_RUNTIME_MANAGER_INTENTS_INVOKER_H
#define STUB_RUNTIME_MANAGER_INTENTS_INVOKER_H

#include <RuntimeManager/Error.h>

#include <QJsonObject>
#include <QObject>

namespace RuntimeManager {

// Succeeds with whatever is invoked.
class STUB_EXPORT IntentsInvoker : public QObject {
  Q_OBJECT

 public:
  explicit IntentsInvoker(QObject* parent = nullptr);
  ~IntentsInvoker() override;
  void invoke(const QString& name, const QJsonObject& first, const QJsonObject& second);

 Q_SIGNALS:
  void replyReceived(const QJsonObject& reply, const RuntimeManager::Error& error);

 private:
  Reserve reserve_;
};

}  // namespace RuntimeManager

#endif  // STUB_RUNTIME_MANAGER_INTENTS_INVOKER_H

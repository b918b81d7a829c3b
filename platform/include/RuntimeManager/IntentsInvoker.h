// RuntimeManager::IntentsInvoker: asks the owner of an intent to act, and brings its answer.
#ifndef RUNTIME_MANAGER_INTENTS_INVOKER_H
#define RUNTIME_MANAGER_INTENTS_INVOKER_H

#include <RuntimeManager/Error.h>
#include <RuntimeManager/Export.h>

#include <QtCore/QJsonObject>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <memory>

namespace RuntimeManager {

// Belongs to the thread that made it, and that thread must run a Qt event loop. Destroying it ends
// its connections: invocations under way are not answered any more.
class RUNTIME_MANAGER_EXPORT IntentsInvoker : public QObject {
  Q_OBJECT

 public:
  explicit IntentsInvoker(QObject* parent = nullptr);
  ~IntentsInvoker() override;

  // Passes both objects to the owner of the intent `name`. Each call is followed by exactly one
  // replyReceived(). Several may be under way; their replies come as the owners answer. An owner
  // that has not answered after RUNTIME_MANAGER_INTENT_TIMEOUT seconds (30 unless told) is an
  // error; a later reply is dropped. The intent "OpenURI" is always there: without an owner, the
  // member "uri" of `second` is handed to the program that opens URIs. Unless it is a valid
  // absolute URI it reaches neither the owner nor the program, and is an error.
  void invoke(const QString& name, const QJsonObject& first, const QJsonObject& second);

 Q_SIGNALS:
  // The answer to one invocation, from the event loop: the owner's object and no error, or an empty
  // object and why there is no answer.
  void replyReceived(const QJsonObject& reply, const RuntimeManager::Error& error);

 private:
  class Private;
  std::unique_ptr<Private> d_;
};

}  // namespace RuntimeManager

#endif  // RUNTIME_MANAGER_INTENTS_INVOKER_H

// The owner's side of an intent: a socket that serves invocations.
#ifndef RUNTIME_MANAGER_HOST_INTENT_OWNER_H
#define RUNTIME_MANAGER_HOST_INTENT_OWNER_H

#include <RuntimeManager/Error.h>
#include <RuntimeManager/RuntimeDispatcher.h>

#include <QtCore/QObject>
#include <QtCore/QString>
#include <memory>
#include <set>

#include "connections.h"
#include "socket_folder.h"
#include "support.h"

namespace RuntimeManager::host {

// How an invocation and its answer are written on the socket, a line each way.
namespace intent {
inline const QString kFirst = QStringLiteral("first");
inline const QString kSecond = QStringLiteral("second");
inline const QString kReply = QStringLiteral("reply");
inline const QString kError = QStringLiteral("error");
// The intent whose second object has a URI; one that is no valid absolute URI reaches no owner.
inline const QString kOpenUri = QStringLiteral("OpenURI");
inline const QString kUri = QStringLiteral("uri");
}  // namespace intent

// No error when `name` can be an intent's, and this process may use intents at all.
Error CheckIntent(const QString& name);

// An owner that has not answered by then has forgotten the reply, most likely.
constexpr NumberRule kIntentTimeoutRule{"RUNTIME_MANAGER_INTENT_TIMEOUT", "seconds", 30,
                                        std::size_t{24} * 60 * 60};

// No error when an owner of the intent `name` may get `parameters`, its second object.
Error CheckParameters(const QString& name, const QJsonObject& parameters);

// What an intent is called in the record of messages.
inline QString IntentTitle(const QString& name) { return "intents/" + name; }

// Owns the name for the life of the object, which is that of the process. Invocations are served on
// the thread that made it.
class IntentOwner {
 public:
  // Nothing, with `error` set, when the name is no name, a live process owns it, or the folder
  // cannot be used.
  static std::unique_ptr<IntentOwner> Register(const QString& name,
                                               RuntimeDispatcher::IntentHandler handler,
                                               Error* error);

 private:
  class Invocation;
  IntentOwner(QString name, RuntimeDispatcher::IntentHandler handler, SocketFile file,
              int listening);
  void OnConnection(UniqueFd socket);

  const QString name_;
  const RuntimeDispatcher::IntentHandler handler_;
  SocketFile file_;
  QObject context_;
  std::set<std::shared_ptr<Invocation>> invocations_;
  Acceptor acceptor_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_INTENT_OWNER_H

// RuntimeManager::TaskMessaging: JSON objects to and from the other end of a task's socket.
#ifndef RUNTIME_MANAGER_TASK_MESSAGING_H
#define RUNTIME_MANAGER_TASK_MESSAGING_H

#include <RuntimeManager/Error.h>
#include <RuntimeManager/Export.h>

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <memory>

namespace RuntimeManager {

// Belongs to the thread that made it, and that thread must run a Qt event loop. All signals come
// from the event loop. The object may be destroyed from inside any of them, and emits nothing once
// it is destroyed. Any thread may send; that none is inside sendMessage() or sendData() while the
// object is destroyed is the caller's to see to.
class RUNTIME_MANAGER_EXPORT TaskMessaging : public QObject {
  Q_OBJECT

 public:
  // The starter's end: the connection that the Task of that path (Task::socketPath()) has made, for
  // the first object; a new connection for any later one, and for tasks of other processes.
  explicit TaskMessaging(const QString& socket_path, QObject* parent = nullptr);
  // The task's end: waits on a listening socket (RuntimeDispatcher::localServerSocket()) for the
  // starter, and serves that one connection; further ones are closed at once, and so are those of
  // any process but the first that has ever connected to the socket. The descriptor stays
  // the caller's: another object can serve on it when this one is gone, unless the starter is in
  // another pid namespace, where nobody can tell it from others.
  explicit TaskMessaging(int descriptor, QObject* parent = nullptr);
  ~TaskMessaging() override;

  // Sends `message` after all earlier ones of the calling thread. Never blocks: what the peer does
  // not read yet, or before there is one, waits in memory, and is sent by the object's thread when
  // its event loop runs. Delivery is not confirmed. After disconnected() messages are dropped. Any
  // thread.
  //
  // Small messages that handlers send while messages of the same read wait for theirs leave
  // together: with the last of them, when they are 4 KiB, before an event loop that a handler runs,
  // and before the next handler begins once they have waited for 200 microseconds. So a finished
  // answer waits for one running handler at most. A message of another thread leaves at once, and
  // takes along those that wait.
  void sendMessage(const QJsonObject& message);
  // Sends the message {"data": text}, where `text` is UTF-8, without the cost of the object, as
  // sendMessage() does; but a peer that is reading a large text is waited for as long as copying it
  // would take: a millisecond for each mebibyte, and two without progress. The text is read before
  // this returns: it may be raw data. A runtime manager may lack this, and dataReceived(): ask the
  // compiler. Any thread.
  void sendData(const QByteArray& text);

 Q_SIGNALS:
  // One message of the peer, in the order they were sent.
  void messageReceived(const QJsonObject& message);
  // May come instead of messageReceived() for the message {"data": text}, in the same order, when
  // something is connected here; `text` is UTF-8. The only receiver may take or clear it, so that a
  // large text does not stay in memory twice. What is no such message still comes as an object: a
  // text that JSON writes with escapes, without a word, and anything without a text "data", with a
  // warning in the log, because whoever takes texts makes no message of it.
  void dataReceived(QByteArray& text);
  // The connection is lost, was refused, or never came to be; `error` says why. Emitted once at
  // most, after the last message; nothing follows it. When the task of that socket was started by
  // this process and has ended, Task::finished() comes first.
  void disconnected(const RuntimeManager::Error& error);

 private:
  class Private;
  std::shared_ptr<Private> d_;  // lives on while one of its own handlers runs
};

}  // namespace RuntimeManager

#endif  // RUNTIME_MANAGER_TASK_MESSAGING_H

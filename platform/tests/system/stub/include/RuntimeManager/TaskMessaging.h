#ifndef STUB_RUNTIME_MANAGER_TASK_MESSAGING_H
#define STUB_RUNTIME_MANAGER_TASK_MESSAGING_H

#include <RuntimeManager/Error.h>

#include <QByteArray>
#include <QJsonObject>
#include <QObject>

namespace RuntimeManager {

// Gives back what is sent, by the same kind of operation; the text "die" loses the channel.
class STUB_EXPORT TaskMessaging : public QObject {
  Q_OBJECT

 public:
  explicit TaskMessaging(const QString& socket_path, QObject* parent = nullptr);
  explicit TaskMessaging(int descriptor, QObject* parent = nullptr);
  ~TaskMessaging() override;
  void sendMessage(const QJsonObject& message);
#ifdef STUB_OPTIONAL_MEMBERS
  void sendData(const QByteArray& text);
#endif

 Q_SIGNALS:
  void messageReceived(const QJsonObject& message);
#ifdef STUB_OPTIONAL_MEMBERS
  void dataReceived(QByteArray& text);
  void disconnected(const RuntimeManager::Error& error);
#endif

 private:
  Reserve reserve_;
};

}  // namespace RuntimeManager

#endif  // STUB_RUNTIME_MANAGER_TASK_MESSAGING_H

#ifndef FAKE_RUNTIME_MANAGER_TASK_MESSAGING_H
#define FAKE_RUNTIME_MANAGER_TASK_MESSAGING_H

#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QString>
#include <utility>
#include <vector>

namespace RuntimeManager {

// Keeps what is sent; the test emits what is received.
class TaskMessaging : public QObject {
  Q_OBJECT

 public:
  TaskMessaging(QString socket_path, QObject* parent)
      : QObject(parent), path(std::move(socket_path)) {
    GetAll().push_back(this);
  }
  TaskMessaging(int socket, QObject* parent) : QObject(parent), descriptor(socket) {
    GetAll().push_back(this);
  }

  void sendMessage(const QJsonObject& message) { sent.push_back(message); }

  // Every channel opened since the test began; null where it was destroyed.
  static std::vector<QPointer<TaskMessaging>>& GetAll() {
    static std::vector<QPointer<TaskMessaging>> channels;
    return channels;
  }

  const QString path;
  const int descriptor = -1;
  std::vector<QJsonObject> sent;

 Q_SIGNALS:
  void messageReceived(const QJsonObject& message);
};

}  // namespace RuntimeManager

#endif  // FAKE_RUNTIME_MANAGER_TASK_MESSAGING_H

#ifndef FAKE_RUNTIME_MANAGER_TASK_MESSAGING_H
#define FAKE_RUNTIME_MANAGER_TASK_MESSAGING_H

#include <RuntimeManager/Error.h>
#include <RuntimeManager/Journal.h>

#include <QByteArray>
#include <QJsonObject>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QThread>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace RuntimeManager {

// Keeps what is sent, by any thread; the test emits what is received.
class TaskMessaging : public QObject {
  Q_OBJECT

 public:
  TaskMessaging(QString socket_path, QObject* parent)
      : QObject(parent), path(std::move(socket_path)) {
    GetAll().push_back(this);
    Journal::Get().Write("TaskMessaging " + path);
  }
  TaskMessaging(int socket, QObject* parent) : QObject(parent), descriptor(socket) {
    GetAll().push_back(this);
    Journal::Get().Write("TaskMessaging " + QString::number(descriptor));
  }
  ~TaskMessaging() override {
    Journal::Get().Write("~TaskMessaging");
    if (OnDestroyed()) {
      OnDestroyed()();
    }
  }

  void sendMessage(const QJsonObject& message) {
    const std::lock_guard lock(mutex_);
    sent.push_back(message);
    if (on_send) {
      on_send();
    }
  }

  // Every channel opened since the test began; null where it was destroyed.
  static std::vector<QPointer<TaskMessaging>>& GetAll() {
    static std::vector<QPointer<TaskMessaging>> channels;
    return channels;
  }

  // Called by destructors, if set.
  static std::function<void()>& OnDestroyed() {
    static std::function<void()> function;
    return function;
  }

  const QString path;
  const int descriptor = -1;
  std::vector<QJsonObject> sent;
  std::function<void()> on_send;  // called as a send ends

#ifdef FAKE_OPTIONAL_MEMBERS
  void sendData(const QByteArray& text) {
    const std::lock_guard lock(mutex_);
    sent_texts.push_back(text.toStdString());
    if (on_send) {
      on_send();
    }
  }

  std::vector<std::string> sent_texts;
#endif

 Q_SIGNALS:
  void messageReceived(const QJsonObject& message);
#ifdef FAKE_OPTIONAL_MEMBERS
  void dataReceived(QByteArray& text);
  void disconnected(const RuntimeManager::Error& error);
#endif

 private:
  std::mutex mutex_;
};

}  // namespace RuntimeManager

#endif  // FAKE_RUNTIME_MANAGER_TASK_MESSAGING_H

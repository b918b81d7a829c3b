#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/RuntimeDispatcher.h>
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>

#include <QTimer>

namespace RuntimeManager {

Task::Task(const QString& name, QObject* parent) : QObject(parent), name_(name) {}
Task::~Task() = default;
void Task::withIpcSocket(bool) {}
void Task::withArguments(const QStringList&) {}
void Task::start(Completion completion) {
  QTimer::singleShot(0, this, [completion] { completion({}); });
}
void Task::stop(StopFlags, Completion completion) {
  QTimer::singleShot(0, this, [completion] { completion({}); });
}
QString Task::socketPath() const { return "/stub/" + name_; }

TaskMessaging::TaskMessaging(const QString&, QObject* parent) : QObject(parent) {}
TaskMessaging::TaskMessaging(int, QObject* parent) : QObject(parent) {}
TaskMessaging::~TaskMessaging() = default;
void TaskMessaging::sendMessage(const QJsonObject& message) {
  QTimer::singleShot(0, this, [this, message] { Q_EMIT messageReceived(message); });
}
#ifdef STUB_OPTIONAL_MEMBERS
void TaskMessaging::sendData(const QByteArray& text) {
  const QByteArray copy(text.constData(), text.size());
  QTimer::singleShot(0, this, [this, copy] {
    if (copy == "die") {
      Q_EMIT disconnected({-32003, "died"});
      return;
    }
    QByteArray echo = copy;
    Q_EMIT dataReceived(echo);
  });
}
#endif

IntentsInvoker::IntentsInvoker(QObject* parent) : QObject(parent) {}
IntentsInvoker::~IntentsInvoker() = default;
void IntentsInvoker::invoke(const QString&, const QJsonObject&, const QJsonObject&) {
  QTimer::singleShot(0, this, [this] { Q_EMIT replyReceived({}, {}); });
}

RuntimeDispatcher* RuntimeDispatcher::instance() {
  static RuntimeDispatcher dispatcher;
  return &dispatcher;
}
int RuntimeDispatcher::localServerSocket() const { return -1; }
void RuntimeDispatcher::registerIntent(
    const QString&,
    std::function<void(const QJsonObject&, std::function<void(const QJsonObject&)>)>) {}

}  // namespace RuntimeManager

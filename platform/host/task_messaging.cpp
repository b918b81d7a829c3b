#include <RuntimeManager/RuntimeDispatcher.h>
#include <RuntimeManager/TaskMessaging.h>

#include <QtCore/QMetaMethod>
#include <QtCore/QTimer>
#include <string_view>
#include <utility>

#include "activation.h"
#include "connections.h"
#include "exit_flush.h"
#include "line_channel.h"
#include "socket_folder.h"
#include "support.h"
#include "task_registry.h"

namespace RuntimeManager {
namespace host {
namespace {

// A task that dies closes its connection a moment before the kernel says that it is dead. The
// loss is held back that long at most, so that finished(), which knows the cause, comes first.
constexpr int kLastWordsMs = 1000;

// What a TaskMessaging is made of. It lives on while one of its own handlers runs, even when the
// TaskMessaging is destroyed there.
class MessagingLink : public TaskWatcher, public std::enable_shared_from_this<MessagingLink> {
 public:
  using HearsData = bool (*)(const TaskMessaging&);

  // `hears_data` tells whether something is connected to dataReceived().
  MessagingLink(TaskMessaging* owner, HearsData hears_data)
      : owner_(owner), hears_data_(hears_data) {}
  ~MessagingLink() override = default;

  void OpenPath(const QString& path);
  void OpenDescriptor(int descriptor);
  void Close();
  void Send(const QJsonObject& message) { channel_->Send(message); }
  void SendData(std::string_view text) { channel_->SendData(text); }

  void DrainTask() override { channel_->Drain(); }
  void OnTaskEnded(const Error& why) override;

 private:
  void MakeChannel(const QString& task, const QString& peer);
  void OnDialed(UniqueFd socket, const Error& error);
  void OnConnection(UniqueFd socket);
  void OnObject(const QJsonObject& object);
  void OnData(QByteArray& text);
  void OnChannelEnd(const Error& error);
  void Report(const Error& error);

  TaskMessaging* owner_;
  HearsData hears_data_;
  QString path_;
  std::shared_ptr<LineChannel> channel_;
  std::unique_ptr<Dialer> dialer_;
  std::unique_ptr<Acceptor> acceptor_;
  QTimer last_words_;
  Error loss_;
  bool has_peer_ = false;
  bool closed_ = false;
};

void MessagingLink::MakeChannel(const QString& task, const QString& peer) {
  const auto weak = weak_from_this();
  LineChannel::Callbacks callbacks;
  callbacks.on_object = [weak](const QJsonObject& object) {
    if (const auto self = weak.lock()) {
      self->OnObject(object);
    }
  };
  callbacks.wants_data = [weak] {
    const auto self = weak.lock();
    return self != nullptr && !self->closed_ && self->hears_data_(*self->owner_);
  };
  callbacks.on_data = [weak](QByteArray& text) {
    if (const auto self = weak.lock()) {
      self->OnData(text);
    }
  };
  callbacks.on_end = [weak](const Error& error) {
    if (const auto self = weak.lock()) {
      self->OnChannelEnd(error);
    }
  };
  channel_ = std::make_shared<LineChannel>(task, peer, std::move(callbacks));
}

void MessagingLink::OpenPath(const QString& path) {
  path_ = path;
  const QString task = TaskRegistry::Get().NameOf(path);
  MakeChannel(task, QString("task '%1'").arg(task));
  last_words_.setSingleShot(true);
  QObject::connect(&last_words_, &QTimer::timeout, &last_words_, [this] { Report(loss_); });
  TaskRegistry::Get().Watch(path, weak_from_this(), &last_words_);
  dialer_ = std::make_unique<Dialer>(
      path, [path](int* error_number) { return ConnectSocket(path, error_number); },
      [this](UniqueFd socket, const Error& error, int /*error_number*/) {
        OnDialed(std::move(socket), error);
      });
}

void MessagingLink::OpenDescriptor(int descriptor) {
  MakeChannel(OwnTaskName(), QString("the starter of the task '%1'").arg(OwnTaskName()));
  FlushAtExit(channel_);
  if (descriptor < 0) {
    const Error error(Error::kNotATask,
                      QString("'%1' has no task socket to serve messages on: this process was not "
                              "started as a task with a socket")
                          .arg(OwnTaskName()));
    Warn(error.message());
    channel_->EndSoon(error);
    return;
  }
  acceptor_ =
      std::make_unique<Acceptor>(QString("the task '%1'").arg(OwnTaskName()), descriptor,
                                 [this](UniqueFd socket) { OnConnection(std::move(socket)); });
  const Error error = acceptor_->GetError();
  if (!error.isError()) {
    return;
  }
  Warn(error.message());
  channel_->EndSoon(error);
}

void MessagingLink::Close() {
  closed_ = true;
  TaskRegistry::Get().Unwatch(&last_words_);
  last_words_.stop();
  dialer_.reset();
  acceptor_.reset();
  channel_->Close();
}

void MessagingLink::OnDialed(UniqueFd socket, const Error& error) {
  if (socket.IsValid()) {
    channel_->Attach(std::move(socket));
    return;
  }
  channel_->EndSoon(error);
}

void MessagingLink::OnConnection(UniqueFd socket) {
  // One connection in a life: the socket of any other closes here.
  if (std::exchange(has_peer_, true)) {
    return;
  }
  channel_->Attach(std::move(socket));
}

void MessagingLink::OnObject(const QJsonObject& object) {
  if (!closed_) {
    Q_EMIT owner_->messageReceived(object);
  }
}

void MessagingLink::OnData(QByteArray& text) {
  if (!closed_) {
    Q_EMIT owner_->dataReceived(text);
  }
}

void MessagingLink::OnChannelEnd(const Error& error) {
  if (closed_) {
    return;
  }
  loss_ = error;
  const bool may_be_over =
      error.code() == Error::kConnectionLost || error.code() == Error::kConnectFailed;
  if (may_be_over && TaskRegistry::Get().HasTask(path_)) {
    last_words_.start(kLastWordsMs);
    return;
  }
  Report(error);
}

void MessagingLink::OnTaskEnded(const Error& why) {
  const auto self = shared_from_this();
  channel_->Drain();
  channel_->Close();
  Report(why);
}

void MessagingLink::Report(const Error& error) {
  if (closed_) {
    return;
  }
  const auto self = shared_from_this();
  // What remains is an acceptor that turns connections away.
  closed_ = true;
  TaskRegistry::Get().Unwatch(&last_words_);
  last_words_.stop();
  Q_EMIT owner_->disconnected(error);
}

}  // namespace
}  // namespace host

class TaskMessaging::Private {
 public:
  explicit Private(TaskMessaging* owner)
      : link(std::make_shared<host::MessagingLink>(owner, &HearsData)) {}
  ~Private() { link->Close(); }
  Private(const Private&) = delete;
  Private& operator=(const Private&) = delete;

  static bool HearsData(const TaskMessaging& messaging) {
    static const QMetaMethod kSignal = QMetaMethod::fromSignal(&TaskMessaging::dataReceived);
    return messaging.isSignalConnected(kSignal);
  }

  std::shared_ptr<host::MessagingLink> link;
};

TaskMessaging::TaskMessaging(const QString& socket_path, QObject* parent)
    : QObject(parent), d_(std::make_unique<Private>(this)) {
  qRegisterMetaType<RuntimeManager::Error>();
  d_->link->OpenPath(socket_path);
}

TaskMessaging::TaskMessaging(int descriptor, QObject* parent)
    : QObject(parent), d_(std::make_unique<Private>(this)) {
  qRegisterMetaType<RuntimeManager::Error>();
  d_->link->OpenDescriptor(descriptor);
}

TaskMessaging::~TaskMessaging() = default;

void TaskMessaging::sendMessage(const QJsonObject& message) { d_->link->Send(message); }

void TaskMessaging::sendData(const QByteArray& text) {
  d_->link->SendData({text.constData(), static_cast<std::size_t>(text.size())});
}

}  // namespace RuntimeManager

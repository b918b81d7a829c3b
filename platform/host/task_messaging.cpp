#include <RuntimeManager/RuntimeDispatcher.h>
#include <RuntimeManager/TaskMessaging.h>

#include <QtCore/QMetaMethod>
#include <QtCore/QTimer>
#include <chrono>
#include <string_view>
#include <utility>

#include "activation.h"
#include "connections.h"
#include "line_channel.h"
#include "process_exit.h"
#include "socket_folder.h"
#include "support.h"
#include "task_registry.h"
#include "want_of_memory.h"

namespace RuntimeManager {

using host::Acceptor;
using host::Dialer;
using host::LineChannel;
using host::TaskRegistry;
using host::UniqueFd;

namespace {

// A task that dies closes its connection a moment before the kernel says that it is dead. The
// loss is held back that long at most, so that finished(), which knows the cause, comes first.
constexpr int kLastWordsMs = 1000;
// How long a process that exits waits until its peer has taken what waits for it. A task: enough
// for a starter under load to take tens of mebibytes, less than a stop() waits for. A starter: its
// tasks are about to end.
constexpr std::chrono::seconds kPatienceOfTasks{2};
constexpr std::chrono::seconds kPatienceOfStarters{0};

}  // namespace

// It lives on while one of its own handlers runs, even when the TaskMessaging is destroyed there.
class TaskMessaging::Private : public host::TaskWatcher,
                               public std::enable_shared_from_this<Private> {
 public:
  explicit Private(TaskMessaging* owner) : owner_(owner) {}

  bool IsRefused(const QString& peer);
  // Closes again what it has opened when `open` throws.
  template <class Open>
  void Guard(const Open& open);
  void OpenPath(const QString& path);
  void OpenDescriptor(int descriptor);
  void Close();
  LineChannel& Channel() { return *channel_; }

  void DrainTask() override { channel_->Drain(); }
  void OnTaskEnded(const Error& why) override;

 private:
  void MakeChannel(const QString& task, const QString& peer);
  bool HearsData() const;
  void OnDialed(UniqueFd socket, const Error& error);
  void OnConnection(UniqueFd socket);
  void OnNoService(int descriptor, const Error& error);
  void Attach(UniqueFd socket);
  void OnChannelEnd(const Error& error);
  void Report(const Error& error);
  void StopWatching();

  TaskMessaging* owner_;
  QString path_;
  std::shared_ptr<LineChannel> channel_;
  std::unique_ptr<Dialer> dialer_;
  std::unique_ptr<Acceptor> acceptor_;
  QTimer last_words_;
  Error loss_;
  bool has_peer_ = false;
  bool closed_ = false;
};

// The channel calls nothing once it is closed, and it is closed before this object goes.
void TaskMessaging::Private::MakeChannel(const QString& task, const QString& peer) {
  LineChannel::Callbacks callbacks;
  callbacks.on_object = [this](const QJsonObject& object) {
    Q_EMIT owner_->messageReceived(object);
  };
  callbacks.wants_data = [this] { return HearsData(); };
  callbacks.on_data = [this](QByteArray& text) { Q_EMIT owner_->dataReceived(text); };
  callbacks.on_end = [this](const Error& error) { OnChannelEnd(error); };
  channel_ = std::make_shared<LineChannel>(task, peer, std::move(callbacks));
}

bool TaskMessaging::Private::HearsData() const {
  static const QMetaMethod kSignal = QMetaMethod::fromSignal(&TaskMessaging::dataReceived);
  return owner_->isSignalConnected(kSignal);
}

// In a copy of the process, that is, where nothing of the host's may be touched.
bool TaskMessaging::Private::IsRefused(const QString& peer) {
  const Error refusal = host::CheckOriginal();
  if (refusal.isError()) {
    MakeChannel(peer, peer);
    channel_->EndSoon(refusal);
  }
  return refusal.isError();
}

template <class Open>
void TaskMessaging::Private::Guard(const Open& open) {
  try {
    open();
  } catch (...) {
    Close();
    throw;
  }
}

void TaskMessaging::Private::OpenPath(const QString& path) {
  if (IsRefused(path)) {
    return;
  }
  path_ = path;
  const QString task = TaskRegistry::Get().NameOf(path);
  MakeChannel(task, QString("task '%1'").arg(task));
  channel_->FlushAtExit(kPatienceOfStarters);
  last_words_.setSingleShot(true);
  QObject::connect(&last_words_, &QTimer::timeout, &last_words_, [this] { Report(loss_); });
  TaskRegistry::Get().Watch(path, weak_from_this(), &last_words_);
  UniqueFd first = TaskRegistry::Get().TakeConnection(path);
  if (first.IsValid()) {
    channel_->Attach(std::move(first));
    return;
  }
  dialer_ = std::make_unique<Dialer>(
      path, [path](int* error_number) { return host::ConnectSocket(path, error_number); },
      [this](UniqueFd socket, const Error& error, int /*error_number*/) {
        OnDialed(std::move(socket), error);
      });
}

void TaskMessaging::Private::OpenDescriptor(int descriptor) {
  const QString title = QString("the task '%1'").arg(host::OwnTaskName());
  if (IsRefused(title)) {
    return;
  }
  MakeChannel(host::OwnTaskName(), "the starter of " + title);
  channel_->FlushAtExit(kPatienceOfTasks);
  Error error(Error::kNotATask,
              title +
                  " has no task socket to serve messages on: this process was not started as "
                  "a task with a socket");
  if (descriptor >= 0) {
    acceptor_ = std::make_unique<Acceptor>(
        title, descriptor, [this](UniqueFd socket) { OnConnection(std::move(socket)); },
        [this, descriptor](const Error& failure) { OnNoService(descriptor, failure); });
    error = acceptor_->GetError();
  }
  if (error.isError()) {
    OnNoService(descriptor, error);
  }
}

// The starter's connection waits in the socket, which nobody else would end.
void TaskMessaging::Private::OnNoService(int descriptor, const Error& error) {
  host::Warn(error.message());
  if (descriptor >= 0 && descriptor == host::GetActivation().socket) {
    host::AbandonActivationSocket();
  }
  channel_->EndSoon(error);
}

void TaskMessaging::Private::StopWatching() {
  closed_ = true;
  last_words_.stop();
  TaskRegistry::Get().Unwatch(&last_words_);
}

void TaskMessaging::Private::Close() {
  StopWatching();
  dialer_.reset();
  acceptor_.reset();
  if (channel_ != nullptr) {
    channel_->Close();
  }
}

void TaskMessaging::Private::OnDialed(UniqueFd socket, const Error& error) {
  if (!socket.IsValid()) {
    channel_->EndSoon(error);
    return;
  }
  Attach(std::move(socket));
}

// From the event loop, where nobody hears of an exception.
void TaskMessaging::Private::Attach(UniqueFd socket) {
  if (!host::Attempt([this, &socket] { channel_->Attach(std::move(socket)); })) {
    channel_->EndForMemory();
  }
}

void TaskMessaging::Private::OnConnection(UniqueFd socket) {
  // One connection in a life, of the process that was the first: any other closes here.
  if (has_peer_ || !host::IsOfFirstProcess(acceptor_->GetSocket(), socket.Get())) {
    return;
  }
  has_peer_ = true;
  Attach(std::move(socket));
}

void TaskMessaging::Private::OnChannelEnd(const Error& error) {
  loss_ = error;
  const bool may_be_over =
      error.code() == Error::kConnectionLost || error.code() == Error::kConnectFailed;
  if (may_be_over && TaskRegistry::Get().HasTask(path_) &&
      host::Attempt([this] { host::StartTimer(last_words_, kLastWordsMs); })) {
    return;
  }
  Report(error);
}

void TaskMessaging::Private::OnTaskEnded(const Error& why) {
  const auto self = shared_from_this();
  channel_->Drain();
  channel_->Close();
  Report(why);
}

void TaskMessaging::Private::Report(const Error& error) {
  if (closed_) {
    return;
  }
  const auto self = shared_from_this();
  // What remains is an acceptor that turns connections away.
  StopWatching();
  Q_EMIT owner_->disconnected(error);
}

TaskMessaging::TaskMessaging(const QString& socket_path, QObject* parent)
    : QObject(parent), d_(std::make_shared<Private>(this)) {
  qRegisterMetaType<RuntimeManager::Error>();
  d_->Guard([this, &socket_path] { d_->OpenPath(socket_path); });
}

TaskMessaging::TaskMessaging(int descriptor, QObject* parent)
    : QObject(parent), d_(std::make_shared<Private>(this)) {
  qRegisterMetaType<RuntimeManager::Error>();
  d_->Guard([this, descriptor] { d_->OpenDescriptor(descriptor); });
}

TaskMessaging::~TaskMessaging() { d_->Close(); }

void TaskMessaging::sendMessage(const QJsonObject& message) { d_->Channel().Send(message); }

void TaskMessaging::sendData(const QByteArray& text) {
  d_->Channel().SendData({text.constData(), static_cast<std::size_t>(text.size())});
}

}  // namespace RuntimeManager

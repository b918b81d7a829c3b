#include "session.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <string_view>
#include <utility>

#include "loaded_library.h"

namespace tarvctl {
namespace {

constexpr std::string_view kExec = "exec:";
constexpr char kTaskPath[] = "RUNTIME_MANAGER_TASK_PATH";

// A file's name where it can be a task's.
std::string NameOfProgram(const QString& path) {
  QString name = QFileInfo(path).fileName();
  for (QChar& character : name) {
    const bool fits = character.unicode() < 128 &&
                      (character.isLetterOrNumber() || QString("._-").contains(character));
    character = fits ? character : QChar('_');
  }
  return (name.startsWith('.') ? "task" + name : name).toStdString();
}

std::optional<vorpc::Message::Error> ErrorOf(int code, const char* message) {
  return code == 0 ? std::nullopt
                   : std::optional<vorpc::Message::Error>(std::in_place, code, message);
}

}  // namespace

TaskName::TaskName(const std::string& text) : name_(text) {
  if (text.compare(0, kExec.size(), kExec) != 0) {
    return;
  }
  const QString path = QString::fromStdString(text.substr(kExec.size()));
  if (!QFileInfo::exists(path)) {
    throw UsageError("there is no file '" + path.toStdString() +
                     "' to run: write exec: and the path of a task's program");
  }
  name_ = NameOfProgram(path);
  folder_.emplace();
  const QString link = folder_->filePath(QString::fromStdString(name_));
  if (!folder_->isValid() || !QFile::link(QFileInfo(path).absoluteFilePath(), link)) {
    throw UsageError("no link to '" + path.toStdString() +
                     "' can be made in the temporary folder '" + QDir::tempPath().toStdString() +
                     "': is there room, and may you write there?");
  }
  const QByteArray before = qgetenv(kTaskPath);
  qputenv(kTaskPath, folder_->path().toUtf8() + (before.isEmpty() ? "" : ":" + before));
}

Session::Session(const std::string& task, Duration timeout, OnNotification on_notification)
    : name_(task), on_notification_(std::move(on_notification)) {
  TARVProcTableLoad(&root_, sizeof(root_));
  root_.RpcClientProcTableLoad(&rpc_, sizeof(rpc_));
  manager_ = root_.Initialize();
  ref_ = root_.CreateRpcClient(manager_);
  client_ = vorpc::IOwnedClient::Create(
      [this](vorpc::Message&& message) { rpc_.SendMessage(ref_, message.ToBase64().c_str()); });
  caller_ = std::make_unique<tarv::Caller>(
      client_, tarv::CallerOptions().TaskName(name_.Get()).ConnectTimeout(timeout));
  StartTask();
}

Session::~Session() {
  caller_.reset();
  rpc_.Release(ref_);
  root_.Release(manager_);
}

void Session::StartTask() {
  TARVRpcClientSlots slots{};
  slots.size = sizeof(slots);
  slots.OnStarted = &HandleStarted;
  slots.OnDisconnect = &HandleDisconnect;
  slots.OnMessage = &HandleMessage;
  slots.user_data = this;
  if (rpc_.StartTask(ref_, name_.Get().c_str(), LibraryFolder().c_str(), &slots) != 0) {
    throw UsageError("the name of a task must not be empty");
  }
}

void Session::HandleStarted(void* self, int code, const char* message, std::size_t chunk) {
  auto& session = *static_cast<Session*>(self);
  if (code != 0) {
    session.client_->Disconnect(ErrorOf(code, message));
  }
  session.rpc_.UnlockResources(session.ref_, chunk);
  session.client_->SetStarted();
}

void Session::HandleDisconnect(void* self, int code, const char* message, std::size_t chunk) {
  auto& session = *static_cast<Session*>(self);
  session.client_->Disconnect(ErrorOf(code, message));
  session.rpc_.UnlockResources(session.ref_, chunk);
}

void Session::HandleMessage(void* self, const char* message, std::size_t chunk) {
  auto& session = *static_cast<Session*>(self);
  session.Receive(message);
  session.rpc_.UnlockResources(session.ref_, chunk);
}

// A notification that nobody has a handler for would become a warning of the client's.
void Session::Receive(const std::string& text) {
  vorpc::Message message = vorpc::Message::FromBase64(text);
  if (on_message) {
    on_message(message);
  }
  const auto* const notification = message.GetNotification();
  if (notification != nullptr && notification->method.compare(0, 2, "$/") != 0) {
    on_notification_(*notification);
    return;
  }
  client_->Receive(std::move(message));
}

}  // namespace tarvctl

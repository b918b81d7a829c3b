#include "application.h"

#include <QCoreApplication>
#include <iostream>
#include <numeric>
#include <utility>

#include "protocol.h"

namespace checksums {
namespace {

// Enough that the task never waits for work, few enough that a cancel leaves little behind.
constexpr std::size_t kFilesInFlight = 64;

std::uint64_t TotalSize(const std::vector<File>& files) {
  return std::accumulate(files.begin(), files.end(), std::uint64_t{0},
                         [](std::uint64_t sum, const File& file) { return sum + file.size; });
}

// A line as sha256sum writes it: a name with a backslash or a line break in it is escaped, which a
// backslash before the hash announces.
std::string ResultLine(const std::string& hash, const std::string& path) {
  std::string name;
  for (const char c : path) {
    switch (c) {
      case '\\':
        name += "\\\\";
        break;
      case '\n':
        name += "\\n";
        break;
      case '\r':
        name += "\\r";
        break;
      default:
        name += c;
    }
  }
  return (name.size() != path.size() ? "\\" : "") + hash + "  " + name + "\n";
}

}  // namespace

Application::Application(FileList list, std::string libs_path)
    : list_(std::move(list)),
      libs_path_(std::move(libs_path)),
      hashes_(list_.files.size()),
      progress_(list_.files.size(), TotalSize(list_.files)) {
  for (const std::string& problem : list_.problems) {
    Fail(kSomeFilesFailed, problem);
  }
}

bool Application::LoadTables() {
  if (TARVProcTableLoad(&api_, sizeof(api_)) != QUARN_RESULT_SUCCESS) {
    return false;
  }
  manager_ = api_.Initialize();
  client_ = api_.CreateRpcClient(manager_);
  return client_ != nullptr &&
         api_.RpcClientProcTableLoad(&table_, sizeof(table_)) == QUARN_RESULT_SUCCESS;
}

bool Application::Start() {
  TARVRpcClientSlots callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.OnStarted = &Application::OnStarted;
  callbacks.OnDisconnect = &Application::OnDisconnect;
  callbacks.OnMessage = &Application::OnMessage;
  callbacks.Release = &Application::OnReleased;
  callbacks.user_data = this;
  if (!LoadTables() || table_.StartTask(client_, "checksums", libs_path_.c_str(), &callbacks) !=
                           QUARN_RESULT_SUCCESS) {
    Fail(kTaskFailed, "libtarv.so does not offer what this program needs");
    return false;
  }
  return true;
}

void Application::OnStarted(void* user_data, int code, const char* message, size_t chunk) {
  auto* const self = static_cast<Application*>(user_data);
  if (code == 0) {
    self->running_ = true;
    self->RequestMore();
    return;
  }
  self->Fail(kTaskFailed, std::string("the task could not be started: ") + message);
  self->table_.UnlockResources(self->client_, chunk);
  self->Release();
}

void Application::OnMessage(void* user_data, const char* message, size_t chunk) {
  auto* const self = static_cast<Application*>(user_data);
  const QJsonObject report = FromText(message);
  self->table_.UnlockResources(self->client_, chunk);
  self->Receive(report);
}

void Application::OnDisconnect(void* user_data, int code, const char* message, size_t chunk) {
  auto* const self = static_cast<Application*>(user_data);
  self->running_ = false;
  if (code != 0) {
    self->Fail(kTaskFailed, std::string("the task ended before its work was done: ") + message);
    self->table_.UnlockResources(self->client_, chunk);
  }
}

// The task has stopped and nothing more will come.
void Application::OnReleased(void* user_data) {
  QCoreApplication::exit(static_cast<Application*>(user_data)->status_);
}

void Application::RequestMore() {
  if (finished_ == list_.files.size()) {
    progress_.Update(finished_, finished_bytes_);
    progress_.Clear();
    PrintResults();
    Release();
    return;
  }
  while (requested_ < list_.files.size() && requested_ - finished_ < kFilesInFlight) {
    Send({{"hash", static_cast<int>(requested_)},
          {"path", PathToJson(list_.files[requested_].path)}});
    ++requested_;
  }
}

void Application::Send(const QJsonObject& request) {
  if (table_.SendMessage(client_, ToText(request).c_str()) != QUARN_RESULT_SUCCESS) {
    Fail(kTaskFailed, "the task cannot be reached any more");
    Release();
  }
}

void Application::Receive(const QJsonObject& report) {
  if (report.contains("cancelled")) {
    Release();
  } else if (report.contains("progress")) {
    const auto bytes = static_cast<std::uint64_t>(report["bytes"].toDouble());
    progress_.Update(finished_, finished_bytes_ + bytes);
  } else if (report.contains("done")) {
    const auto index = static_cast<std::size_t>(report["done"].toInt());
    hashes_.at(index) = report["sha256"].toString().toStdString();
    FinishFile(index);
  } else if (report.contains("failed")) {
    const auto index = static_cast<std::size_t>(report["failed"].toInt());
    Fail(kSomeFilesFailed,
         list_.files.at(index).path + ": " + report["why"].toString().toStdString());
    FinishFile(index);
  }
}

void Application::FinishFile(std::size_t index) {
  ++finished_;
  finished_bytes_ += list_.files[index].size;
  progress_.Update(finished_, finished_bytes_);
  RequestMore();
}

void Application::Interrupt() {
  if (status_ != kInterrupted && running_) {
    Fail(kInterrupted, "interrupted");
    Send({{"cancel", true}});
  } else {
    // Before the task runs there is nobody to ask; at the second time we do not ask again.
    status_ = kInterrupted;
    Release();
  }
}

// The first serious reason decides the exit status.
void Application::Fail(ExitStatus status, const std::string& line) {
  progress_.Clear();
  std::cerr << "checksums: " << line << '\n';
  if (status_ == kAllHashed || status_ == kSomeFilesFailed) {
    status_ = status;
  }
}

void Application::PrintResults() const {
  for (std::size_t i = 0; i < hashes_.size(); ++i) {
    if (!hashes_[i].empty()) {
      std::cout << ResultLine(hashes_[i], list_.files[i].path);
    }
  }
  std::cout << std::flush;
}

// A client that runs goes when its task has stopped; one that does not goes with its manager.
void Application::Release() {
  if (running_) {
    table_.Release(client_);
  } else {
    api_.Release(manager_);
  }
}

}  // namespace checksums

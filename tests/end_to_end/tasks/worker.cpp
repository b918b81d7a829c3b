// The task "worker": a plug-in that answers whatever the tests ask.
//
// It begins to serve at once, or, when there is a file "closed" in XDG_RUNTIME_DIR, once that has
// gone. It tells by a file "up" that it runs.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <unistd.h>
#include <veltra/host/run.h>

#include <QCoreApplication>
#include <QTimer>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <utility>
#include <vector>

#include "end_to_end/one_instance.h"

namespace {

using Reply = std::unique_ptr<vorpc::IReply>;

std::filesystem::path Sign(const char* name) {
  return std::filesystem::path(std::getenv("XDG_RUNTIME_DIR")) / name;
}

class Worker final : public cw::Plugin {
 public:
  explicit Worker(cw::PluginRegistrar* registrar)
      : library_folder_(registrar->GetLibraryPath()),
        manager_(tarv::ManagerWrapper::Create(registrar)),
        server_(manager_->CreateRpcServer()) {
    server_->SendNotify("early", "before anybody asked");
    RegisterRequests();
    RegisterNotifications();
    RegisterEnds();
    QObject::connect(&gate_, &QTimer::timeout, &gate_, [this] { RunIfOpen(); });
    constexpr int kLookMs = 5;
    gate_.start(kLookMs);
    RunIfOpen();
    std::ofstream(Sign("up")) << getpid() << "\n";
  }

 private:
  void RunIfOpen() {
    if (!std::filesystem::exists(Sign("closed"))) {
      gate_.stop();
      server_->Run();
    }
  }

  void Answer(const char* method, std::function<cw::EncodableValue()> result) {
    server_->OnRequest(
        method, [result = std::move(result)](const std::string& /*method*/,
                                             const cw::EncodableValue& /*params*/,
                                             Reply&& reply) { reply->SendResult(result()); });
  }

  void RegisterRequests() {
    server_->OnRequest("echo", [](const std::string& /*method*/, const cw::EncodableValue& params,
                                  Reply&& reply) { reply->SendResult(params); });
    server_->OnRequest(
        "fail", [](const std::string& /*method*/, const cw::EncodableValue& params, Reply&& reply) {
          constexpr int kNoSuchFile = 17;
          reply->SendError(kNoSuchFile, "the file is not there", params);
        });
    server_->OnRequest("hold",
                       [this](const std::string& /*method*/, const cw::EncodableValue& /*params*/,
                              Reply&& reply) { held_.push_back(std::move(reply)); });
    Answer("count held", [this] { return static_cast<std::int64_t>(held_.size()); });
    Answer("heard", [this] { return heard_; });
    Answer("process", [] { return getpid(); });
    Answer("starter", [] { return getppid(); });
    Answer("examine library", [this] { return tarv::test::ExamineLibrary(library_folder_); });
  }

  void RegisterNotifications() {
    server_->OnNotify("say", [this](const vorpc::Message::Notification& notification) {
      heard_.push_back(notification.params);
      server_->SendNotify("said", notification.params);
    });
    server_->OnNotify("count", [this](const vorpc::Message::Notification& notification) {
      for (int i = 0; i < notification.params.AsInt64(); ++i) {
        server_->SendNotify("number", i);
      }
    });
  }

  void RegisterEnds() {
    server_->OnNotify("exit", [](const vorpc::Message::Notification& notification) {
      std::cerr << "leaving as told" << std::endl;
      QCoreApplication::exit(static_cast<int>(notification.params.AsInt64().value_or(0)));
    });
  }

  std::filesystem::path library_folder_;
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IServer> server_;
  QTimer gate_;
  std::vector<Reply> held_;
  cw::EncodableList heard_;
};

void WorkerRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Worker>(registrar));
}

}  // namespace

int main(int argc, char** argv) {
  return veltra::host::RunTask(argc, argv, {WorkerRegisterWithRegistrar});
}

#include "application_plugin.h"

#include <cw/event_channel.h>
#include <cw/method_channel.h>
#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "../names.h"

namespace checksums {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Result = std::unique_ptr<cw::MethodResult<>>;
using Events = std::unique_ptr<cw::EventSink<>>;
using OptionalError = std::optional<vorpc::Message::Error>;

// Enough that the task never waits for work, few enough that a cancel leaves little behind.
constexpr std::size_t kRequestsInFlight = 64;

// One call of "hash": a task that lives as long as it, and the files that are still to do.
class Job : public std::enable_shared_from_this<Job> {
 public:
  using Emit = std::function<void(const cw::EncodableValue& event)>;

  Job(cw::EncodableList paths, Result result, Emit emit)
      : paths_(std::move(paths)), result_(std::move(result)), emit_(std::move(emit)) {}

  bool IsDone() const { return !result_; }

  void Start(std::shared_ptr<vorpc::IClient> client) {
    if (!client) {
      Fail(kNotStarted, "libtarv.so refuses to start a task");
      return;
    }
    client_ = std::move(client);
    client_->OnConnected(IfAlive<OptionalError>(&Job::OnConnected));
    client_->OnDisconnected(IfAlive<OptionalError>(&Job::OnDisconnected));
    client_->OnNotify("progress", IfAlive<vorpc::Message::Notification>(&Job::OnProgress));
    client_->Run();
    RequestMore();
  }

  // Answers the call, if that is still to do, and lets the task go.
  void Abandon() {
    if (!IsDone()) {
      Fail(kCancelled, "The application ends.");
    }
  }

  // Ends with the task's next answer, whatever it is: what the task had done before it heard of the
  // cancel is of no use any more.
  void Cancel() {
    cancelled_ = true;
    if (client_) {
      client_->SendNotify("cancel", {});
    }
  }

 private:
  // A callback that does nothing once the job is gone or done.
  template <class Argument>
  std::function<void(const Argument&)> IfAlive(void (Job::*method)(const Argument&)) {
    return [weak = weak_from_this(), method](const Argument& argument) {
      const auto self = weak.lock();
      if (self && !self->IsDone()) {
        (self.get()->*method)(argument);
      }
    };
  }

  void OnConnected(const OptionalError& error) {
    if (error) {
      Fail(kNotStarted, error->message);
    }
  }

  void OnDisconnected(const OptionalError& error) {
    Fail(kTaskLost, error ? error->message : "its channel was closed");
  }

  void OnProgress(const vorpc::Message::Notification& progress) { emit_(progress.params); }

  void RequestMore() {
    if (finished_ == paths_.size()) {
      Finish()->Success();
      return;
    }
    while (requested_ < paths_.size() && requested_ - finished_ < kRequestsInFlight) {
      Request(static_cast<std::int32_t>(requested_++));
    }
  }

  void Request(std::int32_t file) {
    client_->SendRequest(
        "hash", cw::EncodableMap{{"file", file}, {"path", paths_[static_cast<std::size_t>(file)]}},
        [weak = weak_from_this(), file](const vorpc::Message::Response& response) {
          const auto self = weak.lock();
          if (self && !self->IsDone()) {
            self->OnResponse(file, response);
          }
        });
  }

  void OnResponse(std::int32_t file, const vorpc::Message::Response& response) {
    if (cancelled_) {
      Fail(kCancelled, "The work was cancelled.");
      return;
    }
    const auto* const error = response.GetError();
    emit_(error != nullptr ? cw::EncodableMap{{"file", file}, {"error", error->message}}
                           : cw::EncodableMap{{"file", file}, {"sha256", *response.GetResult()}});
    ++finished_;
    RequestMore();
  }

  void Fail(const std::string& code, const std::string& message) { Finish()->Error(code, message); }

  // Lets the task go; the last answer is then up to the caller.
  Result Finish() {
    client_.reset();
    return std::move(result_);
  }

  const cw::EncodableList paths_;
  Result result_;  // empty once the call is answered
  const Emit emit_;
  std::shared_ptr<vorpc::IClient> client_;
  std::size_t requested_ = 0;
  std::size_t finished_ = 0;
  bool cancelled_ = false;
};

class ApplicationPlugin : public cw::Plugin {
 public:
  explicit ApplicationPlugin(cw::PluginRegistrar* registrar)
      : calls_(registrar->GetMessenger(), kMethodChannel),
        events_(registrar->GetMessenger(), kEventChannel),
        manager_(tarv::ManagerWrapper::Create(registrar)) {
    calls_.SetMethodCallHandler(
        [this](const cw::MethodCall<>& call, Result result) { Serve(call, std::move(result)); });
    events_.SetStreamHandler(std::make_unique<cw::StreamHandlerFunctions<>>(
        [this](const cw::EncodableValue*, Events sink) {
          sink_ = std::move(sink);
          return nullptr;
        },
        [this](const cw::EncodableValue*) {
          sink_.reset();
          return nullptr;
        }));
  }

  // The engine ends: no call may come any more, and the job goes before the manager.
  void Release() override {
    calls_.SetMethodCallHandler(nullptr);
    events_.SetStreamHandler(nullptr);
    if (job_) {
      job_->Abandon();
    }
  }

 private:
  void Serve(const cw::MethodCall<>& call, Result result) {
    if (call.GetMethodName() == "hash" && call.GetArguments()->AsList() != nullptr) {
      Hash(*call.GetArguments()->AsList(), std::move(result));
    } else if (call.GetMethodName() == "cancel") {
      if (job_) {
        job_->Cancel();
      }
      result->Success();
    } else {
      result->NotImplemented();
    }
  }

  void Hash(const cw::EncodableList& paths, Result result) {
    if (job_ && !job_->IsDone()) {
      result->Error(kBusy, "one folder at a time");
    } else if (!manager_) {
      result->Error(kNotStarted, "libtarv.so cannot be loaded");
    } else {
      job_ = std::make_shared<Job>(paths, std::move(result), [this](const auto& event) {
        if (sink_) {
          sink_->Success(event);
        }
      });
      job_->Start(manager_->CreateIpcClient(kTaskName));
    }
  }

  const cw::MethodChannel<> calls_;
  const cw::EventChannel<> events_;
  Events sink_;
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<Job> job_;
};

}  // namespace
}  // namespace checksums

void ChecksumsPluginRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<checksums::ApplicationPlugin>(registrar));
}

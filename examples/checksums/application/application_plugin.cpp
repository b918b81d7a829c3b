#include "application_plugin.h"

#include <cw/event_channel.h>
#include <cw/method_channel.h>
#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/calls/caller.h>
#include <tarv/manager_wrapper.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "../names.h"

namespace checksums {
namespace {

using Result = std::unique_ptr<cw::MethodResult<>>;
using Events = std::unique_ptr<cw::EventSink<>>;

// Enough that the task never waits for work, few enough that a cancel leaves little behind.
constexpr std::size_t kCallsInFlight = 64;

// One call of "hash": a task that lives as long as it, and the files that are still to do.
class Job : public std::enable_shared_from_this<Job> {
 public:
  using Emit = std::function<void(const cw::EncodableValue& event)>;
  using HashCall = tarv::Call<Bytes, Step>;

  Job(cw::EncodableList paths, Result result, Emit emit)
      : paths_(std::move(paths)), result_(std::move(result)), emit_(std::move(emit)) {}

  bool IsDone() const { return !result_; }

  void Start(std::shared_ptr<vorpc::IClient> client) {
    caller_.emplace(std::move(client), tarv::CallerOptions().TaskName(kTaskName));
    CallMore();
  }

  // Answers the call, if that is still to do, and lets the task go.
  void Cancel(const std::string& why) {
    if (!IsDone()) {
      Fail(kCancelled, why);
    }
  }

 private:
  void CallMore() {
    if (finished_ == paths_.size()) {
      Finish()->Success();
      return;
    }
    while (called_ < paths_.size() && called_ - finished_ < kCallsInFlight) {
      Hash(static_cast<std::int32_t>(called_++));
    }
  }

  // A file takes as long as it takes: its call ends with the task, or when the user cancels.
  void Hash(std::int32_t file) {
    const auto* const path = std::get_if<Bytes>(&paths_[static_cast<std::size_t>(file)]);
    const auto call = caller_->Call(kHash, path != nullptr ? *path : Bytes(),
                                    tarv::CallOptions().Timeout(tarv::kForever));
    call.OnProgress([this, file](Step step) {
      emit_(cw::EncodableMap{{"file", file}, {"bytes", step.bytes}});
    });
    call.Then([weak = weak_from_this(), file](tarv::Outcome<Bytes> outcome) {
      const auto self = weak.lock();
      if (self && !self->IsDone()) {
        self->OnEnd(file, std::move(outcome));
      }
    });
  }

  void OnEnd(std::int32_t file, tarv::Outcome<Bytes> outcome) {
    if (outcome) {
      emit_(cw::EncodableMap{{"file", file}, {"sha256", *std::move(outcome)}});
    } else if (outcome.GetError().GetReason() == tarv::CallReason::kAnswered) {
      emit_(cw::EncodableMap{{"file", file}, {"error", outcome.GetError().GetMessage()}});
    } else {
      FailWith(outcome.GetError());
      return;
    }
    ++finished_;
    CallMore();
  }

  void FailWith(const tarv::CallError& error) {
    using tarv::CallReason;
    const bool started = error.GetReason() != CallReason::kNotStarted &&
                         error.GetReason() != CallReason::kNeverConnected;
    Fail(started ? kTaskLost : kNotStarted, error.what());
  }

  void Fail(const std::string& code, const std::string& message) { Finish()->Error(code, message); }

  // Lets the task go, and with it the open calls; the last answer is then up to the caller.
  Result Finish() {
    Result result = std::move(result_);
    caller_.reset();
    return result;
  }

  const cw::EncodableList paths_;
  Result result_;  // empty once the call is answered
  const Emit emit_;
  std::optional<tarv::Caller> caller_;
  std::size_t called_ = 0;
  std::size_t finished_ = 0;
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
      job_->Cancel("The application ends.");
    }
  }

 private:
  void Serve(const cw::MethodCall<>& call, Result result) {
    if (call.GetMethodName() == "hash" && call.GetArguments()->AsList() != nullptr) {
      Hash(*call.GetArguments()->AsList(), std::move(result));
    } else if (call.GetMethodName() == "cancel") {
      if (job_) {
        job_->Cancel("The work was cancelled.");
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

// The runtime manager's Task and TaskMessaging, with nothing above them.
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>

#include <QByteArray>
#include <QJsonObject>
#include <utility>

#include "failing_memory.h"
#include "scenario.h"

namespace tarv::torture {
namespace {

using RuntimeManager::Error;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;

class TaskAlone final : public Scenario {
 public:
  using Scenario::Scenario;

  void Act() override {
    Start();
    Settle();
    Open();
    Send(1);
    Send(2);
    Settle();
    Stop();
    Settle();
  }

  std::string Recover() override {
    Settle();
    if (!has_stopped_ && is_started_ && messaging_ != nullptr && !is_lost_) {
      Send(3);
      if (!Settle()) {
        return "connected, but deaf";
      }
      Stop();
      Settle();
    }
    Try([this] {
      messaging_.reset();
      task_.reset();
    });
    return "";
  }

 private:
  void Start() {
    const auto debt = Owe();
    Try(debt, [&] {
      task_ = std::make_unique<Task>(kName);
      task_->withIpcSocket(true);
      task_->start(Ending(debt, is_started_));
    });
  }

  void Open() {
    if (!is_started_) {
      return;
    }
    Try([this] {
      auto messaging = std::make_unique<TaskMessaging>(task_->socketPath());
      QObject::connect(messaging.get(), &TaskMessaging::messageReceived, messaging.get(),
                       [this](const QJsonObject& /*message*/) { unanswered_.PayFirst(); });
      QObject::connect(messaging.get(), &TaskMessaging::disconnected, messaging.get(),
                       [this](const Error& /*error*/) { OnLost(); });
      messaging_ = std::move(messaging);
    });
  }

  // Owes the echo, or the loss.
  void Send(int number) {
    if (messaging_ == nullptr || is_lost_) {
      return;
    }
    const auto debt = Owe();
    QJsonObject message;
    {
      const OwnMemory own;
      unanswered_.Add(debt);
      message = {{"number", number}};
    }
    Try(debt, [&] { messaging_->sendMessage(message); });
  }

  void Stop() {
    if (!is_started_ || has_stopped_) {
      return;
    }
    const auto debt = Owe();
    Try(debt, [&] { task_->stop({}, Ending(debt, has_stopped_)); });
  }

  Task::Completion Ending(const std::shared_ptr<Debt>& debt, bool& is_done) {
    const OwnMemory own;
    return [this, debt, &is_done](const Error& error) {
      debt->Pay();
      is_done = !error.isError();
      if (error.isError()) {
        CountError();
      }
    };
  }

  void OnLost() {
    is_lost_ = true;
    if (!has_stopped_) {
      CountError();
    }
    unanswered_.PayAll();
  }

  const QString kName = QStringLiteral("echoing");
  std::unique_ptr<Task> task_;
  std::unique_ptr<TaskMessaging> messaging_;
  DebtQueue unanswered_;
  bool is_started_ = false;
  bool has_stopped_ = false;
  bool is_lost_ = false;
};

}  // namespace

std::unique_ptr<Scenario> MakeTaskAlone(Loop& loop) { return std::make_unique<TaskAlone>(loop); }

}  // namespace tarv::torture

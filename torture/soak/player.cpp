#include "player.h"

#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/RuntimeDispatcher.h>
#include <quarn/dispatcher.h>
#include <signal.h>
#include <tarv/calls/caller.h>
#include <tarv/intent_manager.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <QEventLoop>
#include <QJsonObject>
#include <QTimer>
#include <algorithm>
#include <array>
#include <deque>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <utility>
#include <vector>

#include "methods.h"
#include "partners.h"
#include "row.h"

namespace soak {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr char kIntent[] = "soak-";
constexpr std::chrono::seconds kPatience{120};

// Runs the event loop until the condition holds. False when patience ends first.
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const QDeadlineTimer deadline(limit);
  QTimer wake;
  wake.start(10);
  bool holds = condition();
  while (!holds && !deadline.hasExpired()) {
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    holds = condition();
  }
  return holds;
}

std::int64_t CountOwnSockets() {
  const fs::path folder = fs::path(std::getenv("XDG_RUNTIME_DIR")) / "runtime-manager";
  const std::string mark = std::to_string(getpid()) + "-";
  return std::count_if(fs::directory_iterator(folder), fs::directory_iterator(),
                       [&mark](const fs::directory_entry& entry) {
                         return entry.path().filename().string().find(mark) != std::string::npos;
                       });
}

class Player {
 public:
  explicit Player(const Play& play) : play_(play), random_(play.seed) {
    RuntimeManager::RuntimeDispatcher::instance()->registerIntent(
        QString::fromStdString(kIntent + play_.name),
        [](const QJsonObject& parameters, const RuntimeManager::RuntimeDispatcher::Reply& reply) {
          reply(parameters);
        });
    QObject::connect(&invoker_, &RuntimeManager::IntentsInvoker::replyReceived, &invoker_,
                     [this](const QJsonObject& /*reply*/, const RuntimeManager::Error& error) {
                       HearReply(error);
                     });
    Begin();
  }
  ~Player() { End(); }
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  int Run() {
    const QDeadlineTimer end(Milliseconds(play_.seconds));
    WarmUp();
    do {
      PlayARound();
      if (!Rest()) {
        break;
      }
    } while (!end.hasExpired());
    End();
    if (!WaitUntil([] { return Children().empty(); }, kPatience)) {
      ledger_.Complain("a task outlives its manager");
    }
    return Judge();
  }

 private:
  using Deed = void (Player::*)();
  struct Chance {
    Deed deed;
    int share;
  };

  // How often, of 1000, what is done.
  static const std::vector<Chance>& Chances() {
    static const std::vector<Chance> chances{
        {&Player::StartATask, 25},     {&Player::DropATask, 22},
        {&Player::SignalATask, 15},    {&Player::OpenAUri, 4},
        {&Player::InvokeAnIntent, 20}, {&Player::AskTheSteadyTask, 200},
        {&Player::AskAPartner, 714},
    };
    return chances;
  }

  // Of one of the items.
  template <class Items>
  std::ptrdiff_t DrawIndex(const Items& items) {
    return Draw(random_, 0, static_cast<std::int64_t>(items.size()) - 1);
  }

  static std::chrono::milliseconds Milliseconds(double seconds) {
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
  }

  void Begin() {
    manager_ = tarv::ManagerWrapper::Create(
        quarn::IDispatcher::CreateEmpty(),
        fs::path(QCoreApplication::applicationDirPath().toStdString()) / "lib");
    intents_ = manager_->GetIntentManager();
    steady_.emplace(manager_->CreateIpcClient("soak_task"),
                    tarv::CallerOptions().ConnectTimeout(kPatience));
    ++starts_;
  }

  void End() {
    partners_.clear();
    steady_.reset();
    intents_.reset();
    manager_.reset();
  }

  // So that what is made at its first use is there before the first figures.
  void WarmUp() {
    for (const Chance& chance : Chances()) {
      (this->*chance.deed)();
    }
    for (int i = 0; i < 3; ++i) {
      StartATask();
    }
  }

  void PlayARound() {
    const QDeadlineTimer end(Milliseconds(play_.round_seconds));
    while (!end.hasExpired()) {
      Act();
      constexpr std::int64_t kLongestPauseUs = 8000;
      const QDeadlineTimer pause(std::chrono::microseconds(Draw(random_, 0, kLongestPauseUs)));
      WaitUntil([&pause] { return pause.hasExpired(); }, 1s);
      HealTasks(false);
    }
  }

  void Act() {
    auto number = static_cast<int>(Draw(random_, 0, 999));
    for (const Chance& chance : Chances()) {
      number -= chance.share;
      if (number < 0) {
        (this->*chance.deed)();
        return;
      }
    }
  }

  void StartATask() {
    constexpr std::size_t kMostPartners = 6;
    if (partners_.size() == kMostPartners) {
      DropATask();
      return;
    }
    const Table table{ledger_, random_, starts_};
    const std::string task = Draw(random_, 0, 1) == 0 ? "soak_task" : "faulty";
    constexpr std::array kMakers{&MakeCallerPartner, &MakeKeptPartner, &MakeRawPartner,
                                 &MakeLockingPartner};
    partners_.push_back(
        kMakers.at(static_cast<std::size_t>(DrawIndex(kMakers)))(*manager_, task, table));
    partners_.back()->Act();
  }

  void DropATask() {
    if (partners_.empty()) {
      return;
    }
    const auto chosen = partners_.begin() + DrawIndex(partners_);
    if ((*chosen)->MayGo()) {
      partners_.erase(chosen);
    }
  }

  void AskAPartner() {
    if (!partners_.empty()) {
      partners_.at(static_cast<std::size_t>(DrawIndex(partners_)))->Act();
    }
  }

  // The steady task meets no fault and no signal, so each answer must be right.
  void AskTheSteadyTask() {
    const std::string text(static_cast<std::size_t>(Draw(random_, 0, 100'000)), 's');
    steady_->Call(kEcho, text, tarv::CallOptions().Timeout(kPatience))
        .Then([this, text, entry = ledger_.Begin("'echo' of the steady task")](
                  const tarv::Outcome<std::string>& outcome) {
          if (!outcome || *outcome != text) {
            ledger_.Complain("the steady task answers wrong: " +
                             std::string(outcome ? "another text" : outcome.GetError().what()));
          }
          ledger_.End(entry, "kValue");
        });
  }

  void OpenAUri() {
    intents_->OpenUri("https://example.com/", [this, entry = ledger_.Begin("a URI")](bool success) {
      ledger_.End(entry, success ? "kValue" : "kAnswered");
    });
  }

  void InvokeAnIntent() {
    // Replies come as the owner answers, and he answers in order.
    invocations_.push_back(ledger_.Begin("an intent"));
    invoker_.invoke(QString::fromStdString(kIntent + play_.other_name), {}, {{"number", 1}});
  }
  void HearReply(const RuntimeManager::Error& error) {
    if (invocations_.empty()) {
      ledger_.Complain("a reply to no intent");
      return;
    }
    ledger_.End(invocations_.front(), error.isError() ? "kAnswered" : "kValue");
    invocations_.pop_front();
  }

  // Any child but the steady task.
  void SignalATask() {
    std::vector<int> children = Children();
    children.erase(std::remove(children.begin(), children.end(), steady_process_), children.end());
    if (children.empty() || steady_process_ == 0) {
      return;
    }
    ++signals_;
    const int child = children.at(static_cast<std::size_t>(DrawIndex(children)));
    constexpr std::array kSignals{SIGKILL, SIGSEGV, SIGTERM, SIGSTOP, SIGSTOP};
    const int signal = kSignals.at(static_cast<std::size_t>(DrawIndex(kSignals)));
    kill(child, signal);
    if (signal == SIGSTOP) {
      stopped_.push_back({child, QDeadlineTimer(Draw(random_, 1, 1500))});
    }
  }

  // Lets what was stopped go on, or kills it, once its time has come.
  void HealTasks(bool all) {
    const std::vector<int> children = Children();
    const auto heal = [&](const Stopped& stopped) {
      if (!all && !stopped.until.hasExpired()) {
        return false;
      }
      if (std::count(children.begin(), children.end(), stopped.process) > 0) {
        kill(stopped.process, Draw(random_, 0, 1) == 0 ? SIGCONT : SIGKILL);
      }
      return true;
    };
    stopped_.erase(std::remove_if(stopped_.begin(), stopped_.end(), heal), stopped_.end());
  }

  // Lets everything end, and measures. False when something does not.
  bool Rest() {
    HealTasks(true);
    for (const auto& partner : partners_) {
      partner->Finish();
    }
    // Requests of plain clients whose answers were lost end with nothing; their clients go.
    WaitUntil([this] { return ledger_.IsEmpty(); }, kRest);
    WaitUntil([this] { return MayAllGo(); }, kPatience);
    partners_.clear();
    if (!WaitUntil([this] { return ledger_.IsEmpty(); }, kPatience)) {
      for (const std::string& open : ledger_.GetOpen()) {
        ledger_.Complain("never ends: " + open);
      }
      return false;
    }
    if (play_.is_restless && Draw(random_, 0, 1) == 0) {
      End();
      Begin();
    }
    return Measure();
  }

  bool MayAllGo() const {
    return std::all_of(partners_.begin(), partners_.end(),
                       [](const auto& partner) { return partner->MayGo(); });
  }

  bool Measure() {
    Row row;
    bool is_measured = false;
    std::optional<Figures> task;
    steady_->Call(kMeasure, tarv::CallOptions().Timeout(kPatience))
        .Then([&](const tarv::Outcome<Figures>& outcome) {
          is_measured = true;
          if (outcome) {
            task = *outcome;
          }
        });
    if (!WaitUntil([&] { return is_measured && Children().size() == 1; }, kPatience) || !task) {
      ledger_.Complain("does not come to rest: " + std::to_string(Children().size()) + " children" +
                       (task ? "" : ", and the steady task says nothing"));
      return false;
    }
    steady_process_ = Children().front();
    row.task_private_kib = task->private_kib;
    row.task_held = task->held;
    row.task_descriptors = task->descriptors;
    Fill(row);
    std::cout << ToLine(row) << std::endl;
    return true;
  }

  void Fill(Row& row) {
    // What is deleted later has its turn.
    const QDeadlineTimer pause(100);
    WaitUntil([&pause] { return pause.hasExpired(); }, 1s);
    row.round = ++rounds_;
    row.begun = ledger_.CountBegun();
    for (const auto& [how, count] : ledger_.GetEnds()) {
      (how == "kValue" || how == "a result" ? row.values : row.errors) += count;
    }
    row.forgotten = ledger_.CountForgotten();
    row.starts = starts_;
    row.signals = signals_;
    row.sockets = CountOwnSockets();
    const Figures figures = MeasureSelf();
    row.private_kib = figures.private_kib;
    row.held = figures.held;
    row.descriptors = figures.descriptors;
    row.threads = figures.threads;
    row.children = figures.children;
  }

  // In a mix that leaves something out nothing is shown of it.
  void ExpectEachEnd() {
    for (const char* how : {"kValue", "kTimedOut", "kCancelled", "kReleased", "a result",
                            "error -32001", "error -32002", "error -32004", "error -32005"}) {
      if (ledger_.GetEnds().count(how) == 0) {
        ledger_.Complain(std::string("nothing has ended with ") + how);
      }
    }
  }

  int Judge() {
    if (play_.seconds >= kLong) {
      ExpectEachEnd();
    }
    for (const auto& [how, count] : ledger_.GetEnds()) {
      std::cerr << "soak: " << play_.name << ": " << count << " ended with " << how << "\n";
    }
    for (const std::string& complaint : ledger_.GetComplaints()) {
      std::cerr << "soak: " << play_.name << ": " << complaint << "\n";
    }
    std::cerr << std::flush;
    return ledger_.GetComplaints().empty() ? EXIT_SUCCESS : EXIT_FAILURE;
  }

  struct Stopped {
    int process;
    QDeadlineTimer until;
  };
  static constexpr std::chrono::milliseconds kRest{4000};
  static constexpr double kLong = 500;  // seconds

  const Play play_;
  Random random_;
  Ledger ledger_;
  std::uint64_t starts_ = 0;
  std::uint64_t signals_ = 0;
  std::uint64_t rounds_ = 0;
  RuntimeManager::IntentsInvoker invoker_;
  std::deque<Ledger::Entry> invocations_;
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::unique_ptr<tarv::IntentManager> intents_;
  std::optional<tarv::Caller> steady_;
  int steady_process_ = 0;
  std::vector<Stopped> stopped_;
  std::vector<std::unique_ptr<Partner>> partners_;
};

}  // namespace

int RunPlay(const Play& play) { return Player(play).Run(); }

}  // namespace soak

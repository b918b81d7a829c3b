#include "partners.h"

#include <tarv/calls/caller.h>
#include <tarv/calls/kept_task.h>

#include <array>
#include <chrono>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "locking_client.h"
#include "methods.h"

namespace soak {
namespace {

using tarv::CallOptions;
using tarv::NameOf;
using tarv::Outcome;
using vorpc::Message;
using namespace std::chrono_literals;

constexpr std::int64_t kSmall = 200;
constexpr std::int64_t kLarge = std::int64_t{4} << 20;
constexpr std::array<const char*, 6> kDeaths{"exit 0", "exit 1",       "segv",
                                             "kill",   "endless line", "hang up"};

// Mostly small, now and then large.
std::int64_t DrawSize(Random& random) {
  return Draw(random, 0, 39) == 0 ? Draw(random, 0, kLarge) : Draw(random, 0, kSmall);
}

std::string DrawDeath(Random& random) {
  return kDeaths.at(static_cast<std::size_t>(Draw(random, 0, kDeaths.size() - 1)));
}

template <class Result>
std::string NameOfEnd(const Outcome<Result>& outcome) {
  return outcome ? "kValue" : std::string(NameOf(outcome.GetError().GetReason()));
}

// The layer of calls, over a client that is started once or again and again.
template <class Calls>
class CallPartner final : public Partner {
 public:
  template <class... Arguments>
  explicit CallPartner(std::string task, const Table& table, Arguments&&... arguments)
      : task_(std::move(task)), table_(table), calls_(std::forward<Arguments>(arguments)...) {}

  void Act() override {
    switch (Draw(table_.random, 0, 19)) {
      case 0:
        Consume(calls_.Call(kDie, DrawDeath(table_.random), Options()), "die");
        break;
      case 1:
        Consume(calls_.Call(kNap, Draw(table_.random, 1, kLongestNapMs), Options()), "nap");
        break;
      case 2:
        Consume(calls_.Call(kFill, DrawSize(table_.random), Options()), "fill");
        break;
      case 3:
        CallSteps();
        break;
      case 4:
      case 5:
        CallAndCancel();
        break;
      default:
        CallEcho();
    }
  }

  // Each call has its deadline.
  void Finish() override {}
  bool MayGo() const override { return true; }

 private:
  static constexpr std::int64_t kLongestNapMs = 50;

  CallOptions Options() const {
    // Sometimes too short, and that is also right.
    return CallOptions().Timeout(std::chrono::milliseconds(Draw(table_.random, 5, 3000)));
  }

  template <class Result, class Step>
  void Consume(const tarv::Call<Result, Step>& call, const char* method) {
    call.Then([&ledger = table_.ledger, entry = Begin(method)](const Outcome<Result>& outcome) {
      ledger.End(entry, NameOfEnd(outcome));
    });
  }

  void CallEcho() {
    const auto size = static_cast<std::size_t>(DrawSize(table_.random));
    const std::string text(size, static_cast<char>('a' + size % 26));
    const bool is_harmless = task_ == "soak_task";
    calls_.Call(kEcho, text, Options())
        .Then([&ledger = table_.ledger, entry = Begin("echo"), text,
               is_harmless](const Outcome<std::string>& outcome) {
          if (is_harmless && outcome && *outcome != text) {
            ledger.Complain("an echo of " + std::to_string(text.size()) + " bytes is another text");
          }
          ledger.End(entry, NameOfEnd(outcome));
        });
  }

  void CallSteps() {
    constexpr std::int64_t kMostSteps = 50;
    const auto call = calls_.Call(kSteps, Draw(table_.random, 0, kMostSteps), Options());
    const auto last = std::make_shared<std::int64_t>(0);
    call.OnProgress([last](std::int64_t step) { *last = step; });
    Consume(call, "steps");
  }

  void CallAndCancel() {
    const auto call = calls_.Call(kKeep, Options());
    Consume(call, "keep");
    if (Draw(table_.random, 0, 1) == 0) {
      call.Cancel();
    }
  }

  Ledger::Entry Begin(const std::string& method) {
    return table_.ledger.Begin("'" + method + "' of a " + task_ + " by calls");
  }

  const std::string task_;
  const Table table_;
  Calls calls_;
};

// The client itself, which has no deadlines.
class RawPartner final : public Partner {
 public:
  RawPartner(std::shared_ptr<vorpc::IClient> client, std::string task, const Table& table)
      : task_(std::move(task)), table_(table), client_(std::move(client)) {
    client_->OnNotify(kDrop,
                      [this](const Message::Notification& /*notification*/) { NapAtTimes(); });
    client_->Run();
  }
  ~RawPartner() override {
    client_.reset();
    for (const Ledger::Entry entry : open_) {
      table_.ledger.Forget(entry);
    }
  }

  void Act() override {
    constexpr int kMostNotes = 2000;
    const auto notes = Draw(table_.random, 1, kMostNotes);
    if (Draw(table_.random, 0, 299) == 0) {
      FillTheQueue();
      return;
    }
    switch (Draw(table_.random, 0, 9)) {
      case 0:
        client_->SendNotify(kFlood, notes);
        break;
      case 1:
        Ask("nap", kNapMs);
        for (std::int64_t i = 0; i < notes; ++i) {
          client_->SendNotify(kNote, i);
        }
        break;
      case 2:
        Ask("keep", {});
        break;
      default:
        Ask("echo", std::string(static_cast<std::size_t>(DrawSize(table_.random)), 'r'));
    }
  }

  // What the task has not answered ends with its connection, which faults may leave standing.
  void Finish() override {
    if (task_ == "soak_task") {
      Ask("die", DrawDeath(table_.random));
    }
  }

  // A client that goes while its task is starting leaves it to the manager's end.
  bool MayGo() const override {
    return client_->IsConnected() || client_->HasConnectionFailed() ||
           std::chrono::steady_clock::now() - started_ > 5s;
  }

 private:
  static constexpr std::int64_t kNapMs = 20;

  // More than may wait for a task that sleeps.
  void FillTheQueue() {
    constexpr std::int64_t kLongNapMs = 1500;
    constexpr int kTexts = 40;
    Ask("nap", kLongNapMs);
    const std::string text(std::size_t{1} << 20, 'q');
    for (int i = 0; i < kTexts; ++i) {
      client_->SendNotify(kNote, text);
    }
  }

  // A reader that is slow.
  void NapAtTimes() {
    if (Draw(table_.random, 0, 999) == 0) {
      std::this_thread::sleep_for(5ms);
    }
  }

  void Ask(const std::string& method, const cw::EncodableValue& params) {
    const Ledger::Entry entry =
        table_.ledger.Begin("'" + method + "' of a " + task_ + " by its client");
    open_.insert(entry);
    client_->SendRequest(method, params, [this, entry](const Message::Response& response) {
      open_.erase(entry);
      const Message::Error* const error = response.GetError();
      table_.ledger.End(entry, error ? "error " + std::to_string(error->code) : "a result");
    });
  }

  const std::string task_;
  const Table table_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  std::shared_ptr<vorpc::IClient> client_;
  std::set<Ledger::Entry> open_;
};

tarv::KeepPolicy Policy() {
  tarv::KeepPolicy policy;
  policy.restart = tarv::Restart::kAtOnce;
  policy.first_pause = 5ms;
  policy.longest_pause = 500ms;
  policy.window = 2s;
  policy.connect_timeout = 3s;
  return policy;
}

}  // namespace

std::int64_t Draw(Random& random, std::int64_t least, std::int64_t most) {
  return least + static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(most - least + 1));
}

Partner::~Partner() = default;

std::unique_ptr<Partner> MakeCallerPartner(const tarv::ManagerWrapper& manager,
                                           const std::string& task, const Table& table) {
  ++table.starts;
  return std::make_unique<CallPartner<tarv::Caller>>(
      task, table, manager.CreateIpcClient(task),
      tarv::CallerOptions().ConnectTimeout(std::chrono::seconds(3)));
}

std::unique_ptr<Partner> MakeKeptPartner(const tarv::ManagerWrapper& manager,
                                         const std::string& task, const Table& table) {
  const auto start = [&manager, task, &starts = table.starts] {
    ++starts;
    return manager.CreateIpcClient(task);
  };
  return std::make_unique<CallPartner<tarv::KeptTask>>(task, table, start, task, Policy());
}

std::unique_ptr<Partner> MakeRawPartner(const tarv::ManagerWrapper& manager,
                                        const std::string& task, const Table& table) {
  ++table.starts;
  return std::make_unique<RawPartner>(manager.CreateIpcClient(task), task, table);
}

std::unique_ptr<Partner> MakeLockingPartner(const tarv::ManagerWrapper& /*manager*/,
                                            const std::string& task, const Table& table) {
  ++table.starts;
  return std::make_unique<RawPartner>(MakeLockingClient(task, table.ledger), task, table);
}

}  // namespace soak

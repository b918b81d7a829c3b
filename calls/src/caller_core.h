// The work of a Caller, without the types of its calls.
#ifndef TARV_CALLS_SRC_CALLER_CORE_H
#define TARV_CALLS_SRC_CALLER_CORE_H

#include <tarv/calls/call_options.h>
#include <tarv/calls/call_state.h>
#include <tarv/calls/loop.h>
#include <tarv/task_client.h>
#include <vorpc/client.h>
#include <vorpc/requests.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "call_texts.h"
#include "inbox.h"
#include "meter.h"

namespace tarv::details {

// Gives a core its clients, one after another. Called on the loop's thread.
class Supervisor {
 public:
  virtual ~Supervisor() = default;
  // A call waits and there is no client.
  virtual void OnClientWanted() = 0;
  virtual void OnConnected() = 0;
  // The connection has ended, and the core wants another client when one is attached. The calls
  // that were open end right after this.
  virtual void OnLost(const Loss& loss) = 0;
};

// Belongs to the loop's thread, but for the operations that say otherwise.
class CallerCore : public std::enable_shared_from_this<CallerCore> {
 public:
  CallerCore(std::shared_ptr<Loop> loop, CallerOptions options);

  void SetSupervisor(std::weak_ptr<Supervisor> supervisor) {
    supervisor_ = std::move(supervisor);
    supervised_ = true;
  }
  // Connects with this client instead of the last one. Calls that wait go to it. None, before any
  // call: each call ends so.
  void Attach(std::shared_ptr<vorpc::IClient> client);
  // Lets the client go. Calls that come now wait for the next one.
  void Detach();
  // There will be no connection for the calls that wait: they end so.
  void FailKept(const Loss& loss);
  void Close();

  // Any thread.
  void Start(const std::shared_ptr<CallState>& state);
  void Cancel(const std::shared_ptr<CallState>& state);
  void DeliverLater(const std::shared_ptr<CallState>& state);
  const std::shared_ptr<Loop>& GetLoop() const { return loop_; }
  const std::string& GetTaskName() const { return task_name_; }
  Meter& GetMeter() { return meter_; }

 private:
  enum class Link { kNone, kConnecting, kConnected, kLost };
  // The order in which calls end: by deadline, then as they were made.
  using OpenKey = std::pair<Loop::Time, std::uint64_t>;
  using StatePtr = std::shared_ptr<CallState>;

  // While one lives, callbacks wait in the inbox: the user is inside an operation.
  class Busy {
   public:
    explicit Busy(CallerCore& core) : core_(core) { ++core_.busy_; }
    ~Busy() { --core_.busy_; }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

   private:
    CallerCore& core_;
  };

  // News of a client come on any thread, and perhaps in the middle of a send.
  bool CanRunNow() const { return loop_->IsCurrent() && busy_ == 0 && inbox_.IsEmpty(); }
  template <class Function>
  void Route(Function function) {
    if (CanRunNow()) {
      function();
    } else {
      inbox_.Add(std::move(function));
    }
  }
  // A function for the client that runs `handler` here, while that client is the current one.
  template <class Argument>
  std::function<void(const Argument&)> Listen(void (CallerCore::*handler)(const Argument&));
  void ListenToManager();
  void KeepWhileStarting(const std::shared_ptr<vorpc::IClient>& client) const;

  void Admit(const StatePtr& state);
  void SendOrKeep(const StatePtr& state);
  void Send(const StatePtr& state);
  void SendThroughClient(CallState& state, std::string_view method,
                         const cw::EncodableValue& params,
                         std::function<void(const vorpc::Message::Response&)>&& callback);
  void TellTask(CallState& state);

  void OnConnected(const std::optional<vorpc::Message::Error>& error);
  void OnDisconnected(const std::optional<vorpc::Message::Error>& error);
  void HandleLoss(const Loss& loss);
  Loss WithMethods(const Loss& loss, const std::vector<StatePtr>& lost) const;
  void OnProgress(const vorpc::Message::Notification& progress);
  void OnResponse(const StatePtr& state, const vorpc::Message::Response& response);
  void OnError(const StatePtr& state, const vorpc::Message::Error& error);
  void AskForNames(const StatePtr& state, const vorpc::Message::Error& error);
  void OnNames(const StatePtr& state, const vorpc::Message::Error& error,
               const vorpc::Message::Response& response);

  void OnWake();
  void SetTimer();
  void Expire(const StatePtr& state);
  bool IsOverdue() const;
  Loop::Time ConnectDeadline() const;

  CallNames NamesOf(const CallState& state) const;
  CallError LossFor(const CallState& state, const Loss& loss) const;
  void End(const StatePtr& state, std::optional<CallError> error);
  void EndAllLost();
  std::vector<StatePtr> CollectOpen() const;

  const std::shared_ptr<Loop> loop_;
  const CallerOptions options_;
  std::string task_name_;  // set before any other thread knows the core
  Meter meter_;
  Inbox inbox_;
  std::weak_ptr<Supervisor> supervisor_;
  bool supervised_ = false;
  std::shared_ptr<vorpc::IClient> client_;
  vorpc::IRequests* requests_ = nullptr;  // of the client, if it has them
  std::uint64_t client_number_ = 0;       // tells what comes from an earlier client
  Link link_ = Link::kNone;
  Loop::Time attached_;  // when the client was
  Loss loss_{CallReason::kReleased, 0, ""};
  std::optional<Loop::Time> first_call_;  // since the client was attached
  int busy_ = 0;
  bool closed_ = false;
  std::uint64_t calls_ = 0;
  std::map<OpenKey, StatePtr> open_;
  std::unordered_map<std::string, std::weak_ptr<CallState>> progress_;  // by request id
  std::set<Loop::Time> wakes_;                                          // that are to come
};

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_CALLER_CORE_H

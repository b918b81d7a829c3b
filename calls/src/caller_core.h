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
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "call_texts.h"
#include "inbox.h"
#include "meter.h"
#include "open_calls.h"

namespace tarv::details {

// Gives a core its clients, one after another. Called on the loop's thread.
class Supervisor {
 public:
  virtual ~Supervisor() = default;
  // A call waits and there is no client. Throws std::bad_alloc: nothing has changed then.
  virtual void OnClientWanted() = 0;
  virtual void OnConnected() noexcept = 0;
  // The connection has ended, and the core wants another client when one is attached. The calls
  // that were open end right after this.
  virtual void OnLost(const Loss& loss) noexcept = 0;
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
  // call: each call ends so. Throws std::bad_alloc: the client is let go then, as by Detach.
  void Attach(std::shared_ptr<vorpc::IClient> client);
  // There will be no connection for the calls that wait: they end so.
  void FailKept(const Loss& loss) noexcept;
  void Close() noexcept;

  // Any thread. Each throws std::bad_alloc: then nothing more comes of a call that was to start, and
  // nothing has happened to another one.
  void Start(const std::shared_ptr<CallState>& state);
  void Cancel(const std::shared_ptr<CallState>& state);
  void DeliverLater(const std::shared_ptr<CallState>& state);
  const std::shared_ptr<Loop>& GetLoop() const { return loop_; }
  const std::string& GetTaskName() const { return task_name_; }
  // Told when memory runs out for the words about an end.
  const CallError& GetPreparedError() const { return prepared_error_; }
  Meter& GetMeter() { return meter_; }

 private:
  enum class Link { kNone, kConnecting, kConnected, kLost };
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
  bool IsIdle() const { return loop_->IsCurrent() && busy_ == 0; }
  // Calls `run` now, or puts what `keep` returns behind what waits. When there is no memory for that
  // either, what waits runs first; or, where that cannot be, std::bad_alloc goes to who brings it.
  template <class Run, class Keep>
  void Route(const Run& run, const Keep& keep) {
    if (!IsIdle() || !inbox_.IsEmpty()) {
      try {
        inbox_.Add(keep());
        return;
      } catch (const std::bad_alloc&) {
        if (!IsIdle()) {
          throw;
        }
        inbox_.Drain();
      }
    }
    run();
  }
  // A function for the client that runs `handler` here, while that client is the current one.
  template <class Argument>
  std::function<void(const Argument&)> Listen(void (CallerCore::*handler)(const Argument&));
  void Connect();
  void ListenToManager();
  // Lets the client go. Calls that come now wait for the next one.
  void Detach() noexcept;
  void KeepWhileStarting(const std::shared_ptr<vorpc::IClient>& client) const;

  void StartHere(const StatePtr& state) noexcept;
  void Admit(const StatePtr& state);
  void Enter(const StatePtr& state);
  std::optional<CallError> FindRefusal(const CallState& state);
  void SendOrKeep(const StatePtr& state);
  void Send(const StatePtr& state);
  void SendKept(const StatePtr& state) noexcept;
  void SendThroughClient(CallState& state, std::string_view method,
                         const cw::EncodableValue& params,
                         std::function<void(const vorpc::Message::Response&)>&& callback);
  void CancelHere(const StatePtr& state) noexcept;
  void TellTask(CallState& state) noexcept;

  void OnConnected(const std::optional<vorpc::Message::Error>& error);
  void OnDisconnected(const std::optional<vorpc::Message::Error>& error);
  void HandleLoss(const Loss& loss) noexcept;
  Loss WithMethods(const Loss& loss) const noexcept;
  std::string TextOfSent() const;
  void OnProgress(const vorpc::Message::Notification& progress);
  void OnResponse(const StatePtr& state, const vorpc::Message::Response& response);
  std::optional<CallError> Read(CallState& state, const cw::EncodableValue& result);
  void OnError(const StatePtr& state, const vorpc::Message::Error& error);
  void AskForNames(const StatePtr& state, const vorpc::Message::Error& error);
  void OnNames(const StatePtr& state, const vorpc::Message::Error& error,
               const vorpc::Message::Response& response);

  void OnWake() noexcept;
  void KeepTime() noexcept;
  void SetTimer();
  CallError TimeOutOf(const CallState& state) const noexcept;
  bool IsOverdue() const;
  Loop::Time ConnectDeadline() const;

  CallNames NamesOf(const CallState& state) const {
    return {state.GetMethod(), task_name_, prepared_error_};
  }
  CallError LossFor(const CallState& state, const Loss& loss) const noexcept;
  void End(const StatePtr& state, std::optional<CallError> error) noexcept;
  bool TryDeliverLater(const StatePtr& state) noexcept;
  void EndInside(const StatePtr& state, CallError error);
  void Conclude(const StatePtr& state, std::optional<CallError> error) noexcept;

  const std::shared_ptr<Loop> loop_;
  const CallerOptions options_;
  std::string task_name_;  // these two are set before any other thread knows the core
  CallError prepared_error_;
  Meter meter_;
  Inbox inbox_;
  std::weak_ptr<Supervisor> supervisor_;
  bool supervised_ = false;
  std::shared_ptr<vorpc::IClient> client_;
  vorpc::IRequests* requests_ = nullptr;  // of the client, if it has them
  std::uint64_t client_number_ = 0;       // tells what comes from an earlier client
  Link link_ = Link::kNone;
  Loop::Time attached_;  // when the client was
  Loss loss_{CallReason::kReleased, 0, nullptr};
  std::optional<Loop::Time> first_call_;  // since the client was attached
  int busy_ = 0;
  bool closed_ = false;
  OpenCalls open_;
  std::unordered_map<std::string, std::weak_ptr<CallState>> progress_;  // by request id
  std::set<Loop::Time> wakes_;                                          // that are to come
};

}  // namespace tarv::details

#endif  // TARV_CALLS_SRC_CALLER_CORE_H

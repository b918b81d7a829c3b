// The client behind IClient, IRequests, INamedPeer and IOwnedClient.
#ifndef VORPC_SRC_CLIENT_IMPL_H
#define VORPC_SRC_CLIENT_IMPL_H

#include <quarn/internal/attempt_all.h>
#include <quarn/object.h>
#include <quarn/run_once_signal.h>
#include <vorpc/client.h>
#include <vorpc/internal/named_peer.h>
#include <vorpc/requests.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "pending_requests.h"
#include "receiver.h"

namespace vorpc::details {

using OptionalError = std::optional<Message::Error>;

constexpr std::string_view kConnectMethod = "vorpc.connected";

class Client final : public IOwnedClient,
                     public IRequests,
                     public INamedPeer,
                     public quarn::details::CounterClient,
                     public std::enable_shared_from_this<Client> {
 public:
  // The receiver is a part of the client, so its filter always finds `this`.
  explicit Client(std::function<void(Message&&)>&& send)
      : receiver_(std::move(send),
                  [this](const Message& message) { return TakeResponse(message); }) {}

  bool IsConnected() const override { return state_ == State::Connected; }
  bool HasConnectionFailed() const override { return state_ == State::Ended; }
  void Run() override;
  void OnConnected(std::function<void(const OptionalError&)>&& callback) override;
  void OnDisconnected(std::function<void(const OptionalError&)>&& callback) override;
  void SendRequest(std::string_view method, const cw::EncodableValue& params,
                   ResponseCallback&& callback) override {
    StartRequest(method, params, std::move(callback));
  }
  Message::ID StartRequest(std::string_view method, const cw::EncodableValue& params,
                           ResponseCallback&& callback) override;
  bool ForgetRequest(const Message::ID& id) override;
  void SendNotify(std::string_view method, const cw::EncodableValue& params) override;
  void OnNotify(std::string_view method,
                std::function<void(const Message::Notification&)>&& callback) override;
  void Receive(Message&& message) override;
  void Disconnect(OptionalError error) override;
  void SetStarted() override;
  // Operations that are running hold on to the object until they are done.
  void Abandon() override;
  void SetPeerName(std::string name) override { receiver_.SetPeerName(std::move(name)); }

 private:
  enum class State : std::int32_t { Created = 0, Connecting = 1, Connected = 2, Ended = 3 };

  // The facts that matter until the handshake ends.
  struct ConnectRecord {
    OptionalError close_error;
    bool closed = false;
    Message request;
  };

  // Of the handshake or of the connection; by default a good one. The error is shared, so that
  // telling everybody of it takes no memory; where there was none for it, its code is left.
  struct Outcome {
    std::shared_ptr<const OptionalError> error;
    std::optional<std::int32_t> code_alone;
  };
  using OutcomeSignal = quarn::OwnedRunOnceSignal<Outcome>;

  // Keeps the object alive during an operation, since any callback may drop the last reference from
  // outside. Empty when the object is being destroyed.
  std::shared_ptr<Client> KeepAlive() { return weak_from_this().lock(); }

  bool ChangeState(State from, State to) { return state_.compare_exchange_strong(from, to); }
  void Subscribe(OutcomeSignal& signal, std::function<void(const OptionalError&)>&& callback);
  void StartHandshake();
  void AttemptConnect();
  std::unique_ptr<ConnectRecord> DetachClosedRecord();
  void HandleConnectResponse(const Message::Response& response);
  void CompleteHandshake();
  bool TakeResponse(const Message& message);
  void KeepAndSend(Message&& request, PendingRequests::Request&& pending, OptionalError& end);
  std::optional<ResponseCallback> TakeCallback(const Message::ID& id);
  bool TakeForgotten(const Message::ID& id);
  void AnswerAfterEnd(const Message::ID& id, const Message::Error& error);
  void RecordClose(const OptionalError& error);
  bool FailHandshake(const OptionalError& error);
  bool EndConnection(const OptionalError& error);
  void Close(const OptionalError& error, bool during_handshake);
  static Outcome MakeOutcome(const Message::Error& error) noexcept;
  void AnswerAll(PendingRequests&& requests, const Message::Error& error,
                 quarn::details::Attempts& steps) const;
  void AnswerOne(PendingRequests::Entry&& entry, const Message::Error& error,
                 quarn::details::Attempts& steps) const;

  Receiver receiver_;
  std::atomic<State> state_{State::Created};
  std::atomic<std::uint32_t> connect_attempts_{0};
  quarn::OwnedRunOnceSignal<> started_;
  OutcomeSignal connected_;
  OutcomeSignal disconnected_;
  std::mutex mutex_;  // guards what follows
  PendingRequests pending_requests_;
  // The error with which the end has answered every request; none before the end.
  OptionalError end_error_;
  std::unique_ptr<ConnectRecord> connect_record_ = std::make_unique<ConnectRecord>();
};

}  // namespace vorpc::details

#endif  // VORPC_SRC_CLIENT_IMPL_H

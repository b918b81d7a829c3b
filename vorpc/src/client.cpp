#include <quarn/escaped.h>
#include <quarn/internal/attempt_all.h>
#include <quarn/listener.h>
#include <quarn/logger.h>
#include <quarn/object.h>
#include <quarn/run_once_signal.h>
#include <vorpc/client.h>
#include <vorpc/requests.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "pending_requests.h"
#include "receiver.h"
#include "request_id.h"

namespace vorpc {

namespace {

using OptionalError = std::optional<Message::Error>;
using details::ResponseCallback;

const OptionalError kNoError;

constexpr std::string_view kConnectMethod = "vorpc.connected";

// A server that refuses as often as this is not going to change its mind.
constexpr std::uint32_t kMaxConnectAttempts = 4;

class Client final : public IOwnedClient,
                     public IRequests,
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
  // What is running holds on to the object until it is done.
  void Abandon() override;

 private:
  enum class State : std::int32_t { Created = 0, Connecting = 1, Connected = 2, Ended = 3 };

  // What is to be known until the handshake ends.
  struct ConnectRecord {
    OptionalError close_error;
    bool closed = false;
    Message request;
  };

  using OutcomeSignal = quarn::OwnedRunOnceSignal<OptionalError>;

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
  void KeepAndSend(Message&& request, details::PendingRequests::Request&& pending,
                   OptionalError& end);
  std::optional<ResponseCallback> TakeCallback(const Message::ID& id);
  bool TakeForgotten(const Message::ID& id);
  void AnswerAfterEnd(const Message::ID& id, const Message::Error& error);
  void RecordClose(OptionalError error);
  bool FailHandshake(const OptionalError& error);
  bool EndConnection(const OptionalError& error);
  void Close(const OptionalError& error, bool during_handshake);
  void AnswerAll(details::PendingRequests&& requests, const Message::Error& error,
                 quarn::details::Attempts& steps) const;

  details::Receiver receiver_;
  std::atomic<State> state_{State::Created};
  std::atomic<std::uint32_t> connect_attempts_{0};
  quarn::OwnedRunOnceSignal<> started_;
  OutcomeSignal connected_;
  OutcomeSignal disconnected_;
  std::mutex mutex_;  // guards what follows
  details::PendingRequests pending_requests_;
  // What the end has answered every request with; none before the end.
  OptionalError end_error_;
  std::unique_ptr<ConnectRecord> connect_record_ = std::make_unique<ConnectRecord>();
};

void Client::Run() {
  const auto self = KeepAlive();
  started_.Subscribe(std::make_shared<quarn::CppStyleListener<>>([weak = weak_from_this()] {
    if (const auto client = weak.lock()) {
      client->StartHandshake();
    }
  }));
}

void Client::OnConnected(std::function<void(const OptionalError&)>&& callback) {
  Subscribe(connected_, std::move(callback));
}

void Client::OnDisconnected(std::function<void(const OptionalError&)>&& callback) {
  Subscribe(disconnected_, std::move(callback));
}

Message::ID Client::StartRequest(std::string_view method, const cw::EncodableValue& params,
                                 ResponseCallback&& callback) {
  const auto self = KeepAlive();
  const std::uint64_t number = details::NextRequestNumber();
  const Message::ID id = details::CreateRequestId(number);
  OptionalError end;
  quarn::details::AttemptAll(
      [&] {
        KeepAndSend(Message::CreateRequest(id, method, params), {number, std::move(callback)}, end);
      },
      [&] {
        if (end) {
          AnswerAfterEnd(id, *end);
        }
      });
  return id;
}

// Puts the request into the table and sends it. Once the client has ended, `end` is the error that
// the request is to be answered with.
void Client::KeepAndSend(Message&& request, details::PendingRequests::Request&& pending,
                         OptionalError& end) {
  details::SendGuard guard(receiver_);
  // After the swap this holds the record's earlier request; it is destroyed after unlocking.
  Message connect_request = request.IsRequest(kConnectMethod) ? request : Message();
  const std::lock_guard lock(mutex_);
  if (receiver_.IsClosed()) {
    return;
  }
  end = end_error_;
  pending_requests_.Add(request.GetRequest()->id, std::move(pending));
  if (connect_record_ != nullptr && !connect_request.IsEmpty()) {
    std::swap(connect_record_->request, connect_request);
    guard.SendImmediately(std::move(request));
  } else {
    guard.Send(std::move(request));
  }
}

// The end has answered what waited then, and nobody will answer this one.
void Client::AnswerAfterEnd(const Message::ID& id, const Message::Error& error) {
  const auto callback = TakeCallback(id);
  if (callback && *callback && !receiver_.IsClosed()) {
    (*callback)(Message::Response(id, error));
  }
}

bool Client::ForgetRequest(const Message::ID& id) {
  const auto self = KeepAlive();
  std::optional<ResponseCallback> dropped;  // destroyed after unlocking
  const std::lock_guard lock(mutex_);
  dropped = pending_requests_.Forget(id);
  return dropped.has_value();
}

void Client::SendNotify(std::string_view method, const cw::EncodableValue& params) {
  const auto self = KeepAlive();
  receiver_.Send(Message::CreateNotification(method, params));
}

void Client::OnNotify(std::string_view method,
                      std::function<void(const Message::Notification&)>&& callback) {
  receiver_.OnNotify(method, std::move(callback));
}

void Client::Receive(Message&& message) {
  const auto self = KeepAlive();
  details::ReceiveGuard guard(receiver_);
  const std::lock_guard lock(mutex_);
  if (connect_record_ != nullptr && connect_record_->request.IsResponseForThis(message)) {
    guard.ReceiveImmediately(message);
  } else {
    guard.Receive(std::move(message));
  }
}

void Client::Disconnect(OptionalError error) {
  const auto self = KeepAlive();
  if (FailHandshake(error) || EndConnection(error)) {
    return;
  }
  RecordClose(error);
  // A handshake that went on meanwhile may have passed the record and both states.
  if (!FailHandshake(error)) {
    EndConnection(error);
  }
}

void Client::SetStarted() {
  const auto self = KeepAlive();
  started_.Emit();
}

void Client::Abandon() {
  receiver_.Close();
  // These reach nobody any more: they let the listeners go while the object is still whole.
  connected_.Emit(kNoError);
  disconnected_.Emit(kNoError);
  details::PendingRequests requests;  // these are destroyed after unlocking
  std::unique_ptr<ConnectRecord> record;
  const std::lock_guard lock(mutex_);
  std::swap(requests, pending_requests_);
  record.swap(connect_record_);
}

void Client::Subscribe(OutcomeSignal& signal,
                       std::function<void(const OptionalError&)>&& callback) {
  const auto self = KeepAlive();
  signal.Subscribe(std::make_shared<quarn::CppStyleListener<OptionalError>>(
      receiver_.UntilClosed(std::move(callback))));
}

void Client::StartHandshake() {
  if (ChangeState(State::Created, State::Connecting)) {
    AttemptConnect();
  }
}

void Client::AttemptConnect() {
  if (const auto closed = DetachClosedRecord()) {
    FailHandshake(closed->close_error);
    return;
  }
  // A second guard: the handler of a refusal does not come back here after the last attempt, so
  // nothing outside can bring the counter this far.
  // GCOVR_EXCL_START
  if (connect_attempts_.fetch_add(1) >= kMaxConnectAttempts) {
    QUARN_LOG_ERROR() << "The maximum number of requests for the Connect event has been exceeded.";
    FailHandshake(Message::Error(Message::kInternalError, "Cannot connect to server."));
    return;
  }
  // GCOVR_EXCL_STOP
  SendRequest(kConnectMethod, {}, [weak = weak_from_this()](const Message::Response& response) {
    if (const auto client = weak.lock()) {
      client->HandleConnectResponse(response);
    }
  });
}

// The connect record, if the transport went away before the handshake could begin.
std::unique_ptr<Client::ConnectRecord> Client::DetachClosedRecord() {
  const std::lock_guard lock(mutex_);
  return connect_record_ != nullptr && connect_record_->closed ? std::move(connect_record_)
                                                               : nullptr;
}

void Client::HandleConnectResponse(const Message::Response& response) {
  if (response.HasResult()) {
    CompleteHandshake();
    return;
  }
  const Message::Error* const error = response.GetError();
  // Once the handshake has ended, the error is that end: there is nothing to try again.
  if (error == nullptr || state_ != State::Connecting) {
    return;
  }
  if (connect_attempts_ >= kMaxConnectAttempts) {
    FailHandshake(*error);
    return;
  }
  QUARN_LOG_ERROR() << "Connect error: " << quarn::Escaped{error->message};
  AttemptConnect();
}

void Client::CompleteHandshake() {
  if (!ChangeState(State::Connecting, State::Connected)) {
    return;
  }
  std::unique_ptr<ConnectRecord> record;  // dies after the lock is released
  {
    const std::lock_guard lock(mutex_);
    record.swap(connect_record_);
  }
  quarn::details::AttemptAll([this] { connected_.Emit(kNoError); },
                             [this] { receiver_.SetQueueEnabled(); });
}

// The receiver's filter.
bool Client::TakeResponse(const Message& message) {
  const Message::Response* const response = message.GetResponse();
  if (response == nullptr) {
    return false;
  }
  const auto callback = TakeCallback(response->id);
  if (!callback) {
    return TakeForgotten(response->id);
  }
  if (*callback) {
    (*callback)(*response);
  } else {
    QUARN_LOG_ERROR() << "Invalid server response";
  }
  return true;
}

// Ends the wait for the response with this id. None when nobody waits for it.
std::optional<ResponseCallback> Client::TakeCallback(const Message::ID& id) {
  const std::lock_guard lock(mutex_);
  return pending_requests_.Take(id);
}

bool Client::TakeForgotten(const Message::ID& id) {
  const std::lock_guard lock(mutex_);
  return pending_requests_.TakeForgotten(id);
}

// The transport has gone before the handshake: if one comes, it shall fail.
void Client::RecordClose(OptionalError error) {
  const std::lock_guard lock(mutex_);
  if (connect_record_ != nullptr) {
    connect_record_->close_error.swap(error);
    connect_record_->closed = true;
  }
}

// False when there is no handshake under way.
bool Client::FailHandshake(const OptionalError& error) {
  if (!ChangeState(State::Connecting, State::Ended)) {
    return false;
  }
  Close(error, true);
  return true;
}

// False when there is no connection.
bool Client::EndConnection(const OptionalError& error) {
  if (!ChangeState(State::Connected, State::Ended)) {
    return false;
  }
  Close(error, false);
  return true;
}

// Called once at most, by whoever has moved the state to Ended.
void Client::Close(const OptionalError& error, bool during_handshake) {
  const Message::Error reported =
      error.value_or(Message::Error(Message::kInternalError, "Unknown runtime error"));
  details::PendingRequests requests;
  std::unique_ptr<ConnectRecord> record;  // destroyed after unlocking
  {
    const std::lock_guard lock(mutex_);
    std::swap(requests, pending_requests_);
    record.swap(connect_record_);
    end_error_ = reported;
  }
  quarn::details::Attempts steps;
  if (during_handshake) {
    steps.Run([this, &reported] { connected_.Emit(reported); });
  } else {
    steps.Run([this, &error] { disconnected_.Emit(error); });
  }
  AnswerAll(std::move(requests), reported, steps);
  steps.Finish();
}

// Answers the requests with the error, in the order in which they were made.
void Client::AnswerAll(details::PendingRequests&& requests, const Message::Error& error,
                       quarn::details::Attempts& steps) const {
  for (auto& [id, request] : requests.TakeAll()) {
    const ResponseCallback callback = std::move(request.callback);
    if (callback && !receiver_.IsClosed()) {
      steps.Run([&id = id, &callback, &error] { callback(Message::Response(id, error)); });
    }
  }
}

}  // namespace

IClient::~IClient() = default;

IRequests::~IRequests() = default;

IOwnedClient::~IOwnedClient() = default;

std::shared_ptr<IOwnedClient> IOwnedClient::Create(std::function<void(Message&&)>&& send) {
  auto client = std::make_shared<Client>(std::move(send));
  IOwnedClient* const handle = client.get();
  // The references outside are counted apart from those of the running operations.
  return {handle, [client = std::move(client)](IOwnedClient* /*handle*/) mutable {
            client->Abandon();
            client.reset();
          }};
}

}  // namespace vorpc

#include <quarn/listener.h>
#include <quarn/logger.h>
#include <quarn/object.h>
#include <quarn/run_once_signal.h>
#include <vorpc/client.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "attempt_all.h"
#include "receiver.h"

namespace vorpc {

namespace {

using OptionalError = std::optional<Message::Error>;
using ResponseCallback = std::function<void(const Message::Response&)>;

const OptionalError kNoError;

constexpr std::string_view kConnectMethod = "vorpc.connected";

// A server that refuses as often as this is not going to change its mind.
constexpr std::uint32_t kMaxConnectAttempts = 4;

// Tells the ids of this process from those of another one that talks to the same server. No secret.
std::string CreateIdPrefix() {
  std::random_device device("default");
  std::mt19937 engine(device());
  std::uniform_int_distribution<int> distribution(1, 1000);
  return "id" + std::to_string(distribution(engine)) + "_";
}

// The number of the next request of the process, from 1.
std::uint64_t NextRequestNumber() {
  static std::atomic<std::uint64_t> counter{0};
  return ++counter;
}

Message::ID CreateRequestId(std::uint64_t number) {
  static const std::string kPrefix = CreateIdPrefix();
  return Message::ID(kPrefix + std::to_string(number));
}

class Client final : public IOwnedClient,
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
                   ResponseCallback&& callback) override;
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

  struct PendingRequest {
    std::uint64_t number;
    ResponseCallback callback;
  };
  using PendingRequests = std::unordered_map<Message::ID, PendingRequest>;

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
  bool TakeCallback(const Message::ID& id, ResponseCallback& callback);
  void RecordClose(OptionalError error);
  bool FailHandshake(const OptionalError& error);
  bool EndConnection(const OptionalError& error);
  void Close(const OptionalError& error, bool during_handshake);
  void AnswerAll(PendingRequests&& requests, const Message::Error& error,
                 details::AttemptAll& steps) const;

  details::Receiver receiver_;
  std::atomic<State> state_{State::Created};
  std::atomic<std::uint32_t> connect_attempts_{0};
  quarn::OwnedRunOnceSignal<> started_;
  OutcomeSignal connected_;
  OutcomeSignal disconnected_;
  std::mutex mutex_;  // guards what follows
  PendingRequests pending_requests_;
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

void Client::SendRequest(std::string_view method, const cw::EncodableValue& params,
                         ResponseCallback&& callback) {
  const auto self = KeepAlive();
  details::SendGuard guard(receiver_);
  const std::uint64_t number = NextRequestNumber();
  Message request = Message::CreateRequest(CreateRequestId(number), method, params);
  // What of these is not kept, or was kept before, dies after the lock is released.
  Message connect_request = method == kConnectMethod ? request : Message();
  PendingRequest pending{number, std::move(callback)};
  const std::lock_guard lock(mutex_);
  if (receiver_.IsClosed()) {
    return;
  }
  pending_requests_.emplace(request.GetRequest()->id, std::move(pending));
  if (connect_record_ != nullptr && !connect_request.IsEmpty()) {
    std::swap(connect_record_->request, connect_request);
    guard.SendImmediately(std::move(request));
  } else {
    guard.Send(std::move(request));
  }
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
  PendingRequests requests;  // these die after the lock is released
  std::unique_ptr<ConnectRecord> record;
  const std::lock_guard lock(mutex_);
  requests.swap(pending_requests_);
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
  QUARN_LOG_ERROR() << "Connect error: " << error->message;
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
  details::AttemptAll steps;
  steps.Run([this] { connected_.Emit(kNoError); });
  steps.Run([this] { receiver_.SetQueueEnabled(); });
  steps.Finish();
}

// The receiver's filter.
bool Client::TakeResponse(const Message& message) {
  const Message::Response* const response = message.GetResponse();
  ResponseCallback callback;
  if (response == nullptr || !TakeCallback(response->id, callback)) {
    return false;
  }
  if (callback) {
    callback(*response);
  } else {
    QUARN_LOG_ERROR() << "Invalid server response";
  }
  return true;
}

// Ends the wait for the response with this id. False when nobody waits for it.
bool Client::TakeCallback(const Message::ID& id, ResponseCallback& callback) {
  const std::lock_guard lock(mutex_);
  const auto found = pending_requests_.find(id);
  if (found == pending_requests_.end()) {
    return false;
  }
  callback = std::move(found->second.callback);
  pending_requests_.erase(found);
  return true;
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
  PendingRequests requests;
  std::unique_ptr<ConnectRecord> record;  // dies after the lock is released
  {
    const std::lock_guard lock(mutex_);
    requests.swap(pending_requests_);
    record.swap(connect_record_);
  }
  const Message::Error reported =
      error.value_or(Message::Error(Message::kInternalError, "Unknown runtime error"));
  details::AttemptAll steps;
  if (during_handshake) {
    steps.Run([this, &reported] { connected_.Emit(reported); });
  } else {
    steps.Run([this, &error] { disconnected_.Emit(error); });
  }
  AnswerAll(std::move(requests), reported, steps);
  steps.Finish();
}

// Answers the requests with the error, in the order in which they were made.
void Client::AnswerAll(PendingRequests&& requests, const Message::Error& error,
                       details::AttemptAll& steps) const {
  std::vector<PendingRequests::value_type*> ordered;
  ordered.reserve(requests.size());
  for (auto& request : requests) {
    ordered.push_back(&request);
  }
  std::sort(ordered.begin(), ordered.end(),
            [](const auto* a, const auto* b) { return a->second.number < b->second.number; });
  for (auto* const request : ordered) {
    const ResponseCallback callback = std::move(request->second.callback);
    if (callback && !receiver_.IsClosed()) {
      steps.Run(
          [request, &callback, &error] { callback(Message::Response(request->first, error)); });
    }
  }
}

}  // namespace

IClient::~IClient() = default;

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

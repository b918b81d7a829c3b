// How a client connects, and how its connection ends.
#include <quarn/escaped.h>
#include <quarn/internal/calls_out.h>
#include <quarn/listener.h>
#include <quarn/logger.h>

#include <new>

#include "client_impl.h"

namespace vorpc::details {
namespace {

// For an error with this code. The text is so short that it takes no memory.
Message::Error OutOfMemory(std::int32_t code) { return {code, "Out of memory"}; }

// The error, or that memory ran out for it.
Message::Error CopyOf(const Message::Error& error) noexcept {
  try {
    return error;
  } catch (const std::bad_alloc&) {
    return OutOfMemory(error.code);
  }
}
OptionalError CopyOf(const OptionalError& error) noexcept {
  return error ? OptionalError(CopyOf(*error)) : std::nullopt;
}

// Where the end has no reason.
Message::Error UnknownError() {
  try {
    return {Message::kInternalError, "Unknown runtime error"};
  } catch (const std::bad_alloc&) {
    return OutOfMemory(Message::kInternalError);
  }
}

// A server that refuses as often as this is not going to change its mind.
constexpr std::uint32_t kMaxConnectAttempts = 4;

}  // namespace

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

void Client::Subscribe(OutcomeSignal& signal,
                       std::function<void(const OptionalError&)>&& callback) {
  const auto self = KeepAlive();
  signal.Subscribe(std::make_shared<quarn::CppStyleListener<Outcome>>(
      [tell = receiver_.UntilClosed(std::move(callback))](const Outcome& outcome) {
        if (outcome.error != nullptr) {
          tell(*outcome.error);
        } else if (outcome.code_alone) {
          tell(OutOfMemory(*outcome.code_alone));
        } else {
          tell(std::nullopt);
        }
      }));
}

void Client::SetStarted() {
  const auto self = KeepAlive();
  started_.Emit();
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

void Client::Abandon() {
  receiver_.Close();
  // These reach nobody any more: they let the listeners go while the object is still whole.
  connected_.Emit({});
  disconnected_.Emit({});
  PendingRequests requests;  // these are destroyed after unlocking
  std::unique_ptr<ConnectRecord> record;
  const std::lock_guard lock(mutex_);
  std::swap(requests, pending_requests_);
  record.swap(connect_record_);
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
  if (connect_attempts_.fetch_add(1) >= kMaxConnectAttempts) {
    QUARN_LOG_ERROR() << "The maximum number of requests for the Connect event has been exceeded.";
    FailHandshake(Message::Error(Message::kInternalError, "Cannot connect to server."));
    return;
  }
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
  quarn::details::CallsOut("a callback of the connection");
  quarn::details::AttemptAll([this] { connected_.Emit({}); },
                             [this] { receiver_.SetQueueEnabled(); });
}

// The transport has gone before the handshake: if one comes, it shall fail.
void Client::RecordClose(const OptionalError& error) {
  OptionalError copy = CopyOf(error);  // the old one dies after unlocking
  const std::lock_guard lock(mutex_);
  if (connect_record_ != nullptr) {
    connect_record_->close_error.swap(copy);
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

Client::Outcome Client::MakeOutcome(const Message::Error& error) noexcept {
  try {
    return {std::make_shared<const OptionalError>(error), std::nullopt};
  } catch (const std::bad_alloc&) {
    return {nullptr, error.code};
  }
}

// Called once at most, by whoever has moved the state to Ended.
void Client::Close(const OptionalError& error, bool during_handshake) {
  const Message::Error reported = error ? CopyOf(*error) : UnknownError();
  PendingRequests requests;
  std::unique_ptr<ConnectRecord> record;  // destroyed after unlocking
  {
    const std::lock_guard lock(mutex_);
    std::swap(requests, pending_requests_);
    record.swap(connect_record_);
    end_error_ = CopyOf(reported);
  }
  quarn::details::CallsOut("a callback of the connection's end");
  quarn::details::Attempts steps;
  if (during_handshake) {
    receiver_.DropQueue();
    steps.Run([this, &reported] { connected_.Emit(MakeOutcome(reported)); });
  } else {
    steps.Run([this, &error] { disconnected_.Emit(error ? MakeOutcome(*error) : Outcome()); });
  }
  AnswerAll(std::move(requests), reported, steps);
  steps.Finish();
}

// Answers the requests with the error, in the order in which they were made.
void Client::AnswerAll(PendingRequests&& requests, const Message::Error& error,
                       quarn::details::Attempts& steps) const {
  for (PendingRequests::Entry& entry : requests.TakeAll()) {
    AnswerOne(std::move(entry), error, steps);
  }
  for (auto entry = requests.TakeFirst(); !entry.empty(); entry = requests.TakeFirst()) {
    AnswerOne(std::move(entry), error, steps);
  }
}

void Client::AnswerOne(PendingRequests::Entry&& entry, const Message::Error& error,
                       quarn::details::Attempts& steps) const {
  const ResponseCallback callback = std::move(entry.mapped().callback);
  if (callback && !receiver_.IsClosed()) {
    steps.Run([&entry, &callback, &error] {
      callback(Message::Response(std::move(entry.key()), CopyOf(error)));
    });
  }
}

}  // namespace vorpc::details

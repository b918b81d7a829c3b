// Messages out and messages in; client_connection.cpp has the connection's beginning and end.
#include <quarn/internal/calls_out.h>
#include <quarn/logger.h>
#include <vorpc/internal/hand_to_user.h>

#include <new>

#include "client_impl.h"
#include "request_id.h"

namespace vorpc {
namespace details {

Message::ID Client::StartRequest(std::string_view method, const cw::EncodableValue& params,
                                 ResponseCallback&& callback) {
  const auto self = KeepAlive();
  const std::uint64_t number = NextRequestNumber();
  Message::ID id = CreateRequestId(number);
  OptionalError end;
  quarn::details::AttemptAll(
      [&] {
        try {
          KeepAndSend(Message::CreateRequest(id, method, params), {number, std::move(callback)},
                      end);
        } catch (const std::bad_alloc&) {
          // The exception is the request's outcome: no response shall follow.
          TakeCallback(id);
          throw;
        }
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
void Client::KeepAndSend(Message&& request, PendingRequests::Request&& pending,
                         OptionalError& end) {
  SendGuard guard(receiver_);
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
    quarn::details::CallsOut("a request's callback");
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
  ReceiveGuard guard(receiver_);
  const std::lock_guard lock(mutex_);
  if (connect_record_ != nullptr && connect_record_->request.IsResponseForThis(message)) {
    guard.ReceiveImmediately(message);
  } else {
    guard.Receive(std::move(message));
  }
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
    quarn::details::CallsOut("a request's callback");
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

}  // namespace details

IClient::~IClient() = default;

IRequests::~IRequests() = default;

IOwnedClient::~IOwnedClient() = default;

std::shared_ptr<IOwnedClient> IOwnedClient::Create(std::function<void(Message&&)>&& send) {
  return HandToUser<IOwnedClient>(std::make_shared<details::Client>(std::move(send)),
                                  [](details::Client& client) { client.Abandon(); });
}

}  // namespace vorpc

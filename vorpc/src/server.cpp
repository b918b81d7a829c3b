#include <quarn/internal/attempt_all.h>
#include <quarn/internal/calls_out.h>
#include <quarn/listener.h>
#include <quarn/logger.h>
#include <quarn/run_once_signal.h>
#include <vorpc/internal/hand_to_user.h>
#include <vorpc/internal/named_peer.h>
#include <vorpc/server.h>

#include <atomic>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "receiver.h"

namespace vorpc {

namespace {

using OptionalError = std::optional<Message::Error>;

const OptionalError kNoError;

constexpr std::string_view kConnectMethod = "vorpc.connected";

class Server final : public IOwnedServer,
                     public INamedPeer,
                     public std::enable_shared_from_this<Server> {
 public:
  class Reply;

  // The receiver is a part of the server, so its filter always finds `this`.
  explicit Server(std::function<void(Message&&)>&& send)
      : receiver_(std::move(send),
                  [this](const Message& message) { return TakeRequest(message); }) {}

  void SendNotify(std::string_view method, const cw::EncodableValue& params) override;
  void OnConnected(std::function<void(const OptionalError&)>&& callback) override;
  void OnRequest(std::string_view method, RequestHandler handler) override;
  void OnNotify(std::string_view method,
                std::function<void(const Message::Notification&)>&& callback) override;
  void Run() override;
  void Receive(Message&& message) override;
  // No reply is sent any more. What is running holds on to the object until it is done.
  void Abandon() override;
  void SetPeerName(std::string name) override { receiver_.SetPeerName(std::move(name)); }

 private:
  // The connect request that waits to be answered; empty before it has come.
  using ConnectSlot = std::unique_ptr<Message>;
  // A slot that was taken out of the server, to complete the handshake without a lock.
  using TakenSlot = details::SingleEntry<ConnectSlot>;
  // Shared, so that a handler is called without the lock and without a copy of what it captured.
  using SharedHandler = std::shared_ptr<const RequestHandler>;
  using RequestHandlers = std::unordered_map<std::string, SharedHandler>;

  // Keeps the object alive during an operation, since any callback may drop the last reference from
  // outside. Empty when the object is being destroyed.
  std::shared_ptr<Server> KeepAlive() { return weak_from_this().lock(); }

  void ReceiveLocked(Message&& message, details::ReceiveGuard& guard, TakenSlot& taken);
  void CompleteHandshake(const Message::Request& request);
  bool TakeRequest(const Message& message);
  SharedHandler FindHandler(const std::string& method);

  details::Receiver receiver_;
  std::shared_mutex handler_mutex_;
  RequestHandlers request_handlers_;
  std::mutex handshake_mutex_;  // guards the slot and the flag
  ConnectSlot connect_slot_ = std::make_unique<Message>();
  bool running_ = false;
  quarn::OwnedRunOnceSignal<OptionalError> connected_;
};

class Server::Reply final : public IReply {
 public:
  Reply(Message::ID id, std::weak_ptr<Server> server)
      : id_(std::move(id)), server_(std::move(server)) {}
  ~Reply() override;
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;

  void SendResult(cw::EncodableValue result) override {
    Send([&] { return Message::CreateResponse(id_, std::move(result)); });
  }

  void SendError(int code, std::string_view message, const cw::EncodableValue& data) override {
    Send([&] { return Message::CreateError(id_, code, message, data); });
  }

  Message::ID GetRequestId() const override { return id_; }

 private:
  // What memory runs out for may be answered again, with less.
  template <class Make>
  void Send(const Make& make) {
    answered_ = true;
    try {
      if (const auto server = server_.lock()) {
        server->receiver_.Send(make());
      }
    } catch (const std::bad_alloc&) {
      answered_ = false;
      throw;
    }
  }

  const Message::ID id_;
  const std::weak_ptr<Server> server_;
  std::atomic<bool> answered_{false};
};

// A request that nobody answers shows nowhere else on this side.
Server::Reply::~Reply() {
  if (answered_) {
    return;
  }
  const auto server = server_.lock();
  if (server && !server->receiver_.IsClosed()) {
    QUARN_LOG_WARN() << "The reply to the request " << id_
                     << " was destroyed without an answer: its client waits until the connection "
                        "ends. Call SendResult or SendError once.";
  }
}

void Server::SendNotify(std::string_view method, const cw::EncodableValue& params) {
  const auto self = KeepAlive();
  receiver_.Send(Message::CreateNotification(method, params));
}

void Server::OnConnected(std::function<void(const OptionalError&)>&& callback) {
  const auto self = KeepAlive();
  connected_.Subscribe(std::make_shared<quarn::CppStyleListener<OptionalError>>(
      receiver_.UntilClosed(std::move(callback))));
}

void Server::OnRequest(std::string_view method, RequestHandler handler) {
  // After the swap this holds the replaced handler; it is destroyed after unlocking.
  SharedHandler shared =
      handler ? std::make_shared<const RequestHandler>(std::move(handler)) : nullptr;
  const std::unique_lock lock(handler_mutex_);
  if (receiver_.IsClosed()) {
    return;
  }
  request_handlers_[std::string(method)].swap(shared);
}

void Server::OnNotify(std::string_view method,
                      std::function<void(const Message::Notification&)>&& callback) {
  receiver_.OnNotify(method, std::move(callback));
}

void Server::Run() {
  const auto self = KeepAlive();
  TakenSlot taken;
  {
    const std::lock_guard lock(handshake_mutex_);
    // Nobody takes the slot before the server runs.
    if (!running_ && connect_slot_->IsRequest(kConnectMethod)) {
      taken.Put(std::move(connect_slot_));
    }
    running_ = true;
  }
  if (const ConnectSlot* const slot = taken.Get()) {
    CompleteHandshake(*(*slot)->GetRequest());
  }
}

void Server::Receive(Message&& message) {
  const auto self = KeepAlive();
  TakenSlot taken;
  {
    details::ReceiveGuard guard(receiver_);
    const std::lock_guard lock(handshake_mutex_);
    ReceiveLocked(std::move(message), guard, taken);
  }
  if (const ConnectSlot* const slot = taken.Get()) {
    CompleteHandshake(*(*slot)->GetRequest());
  }
}

void Server::Abandon() {
  receiver_.Close();
  // This reaches nobody any more: it lets the listeners go while the object is still whole.
  connected_.Emit(kNoError);
  RequestHandlers handlers;  // dies after the lock is released
  const std::unique_lock lock(handler_mutex_);
  handlers.swap(request_handlers_);
}

// With the handshake's lock held.
void Server::ReceiveLocked(Message&& message, details::ReceiveGuard& guard, TakenSlot& taken) {
  const bool wanted = connect_slot_ != nullptr && message.IsRequest(kConnectMethod) &&
                      (running_ || connect_slot_->IsEmpty());
  if (!wanted) {
    guard.Receive(std::move(message));
    return;
  }
  *connect_slot_ = std::move(message);
  if (running_) {
    taken.Put(std::move(connect_slot_));
  }
}

void Server::CompleteHandshake(const Message::Request& request) {
  quarn::details::CallsOut("a callback of the connection");
  quarn::details::AttemptAll(
      [this] { connected_.Emit(kNoError); },
      [this, &request] { receiver_.SendImmediately(Message::CreateResponse(request.id, {})); },
      [this] { receiver_.SetQueueEnabled(); });
}

// The receiver's filter.
bool Server::TakeRequest(const Message& message) {
  const Message::Request* const request = message.GetRequest();
  if (request == nullptr) {
    return false;
  }
  if (const SharedHandler handler = FindHandler(request->method)) {
    quarn::details::CallsOut("a request's handler");
    (*handler)(request->method, request->params,
               std::make_unique<Reply>(request->id, weak_from_this()));
    return true;
  }
  receiver_.Send(Message::CreateError(request->id, Message::kUnknownMethod,
                                      "Unknown method '" + request->method + "()'"));
  return true;
}

Server::SharedHandler Server::FindHandler(const std::string& method) {
  const std::shared_lock lock(handler_mutex_);
  const auto found = request_handlers_.find(method);
  return found == request_handlers_.end() ? nullptr : found->second;
}

}  // namespace

IReply::~IReply() = default;

Message::ID IReply::GetRequestId() const { return Message::ID(""); }

IServer::~IServer() = default;

IOwnedServer::~IOwnedServer() = default;

std::shared_ptr<IOwnedServer> IOwnedServer::Create(std::function<void(Message&&)>&& send) {
  return HandToUser<IOwnedServer>(std::make_shared<Server>(std::move(send)),
                                  [](Server& server) { server.Abandon(); });
}

}  // namespace vorpc

// The answering end of a JSON-RPC connection.
#ifndef VORPC_SERVER_H
#define VORPC_SERVER_H

#include <cw/encodable_value.h>
#include <quarn/export.h>
#include <vorpc/message.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vorpc {

// Answers one request, now or later, on any thread. Answer exactly once: every call sends a
// response, and a reply that dies unused leaves the client waiting until its connection ends, and a
// warning line that names the request's id. Once the server is gone, an answer goes nowhere.
class TARV_EXPORT IReply {
 public:
  virtual ~IReply();

  virtual void SendResult(cw::EncodableValue result) = 0;
  virtual void SendError(int code, std::string_view message, const cw::EncodableValue& data) = 0;

  // The id of the request that this answers. An implementation that does not tell gives the id
  // without a text, which no request has.
  virtual Message::ID GetRequestId() const;
};

// The users' view of a connection. Any thread; callbacks run on the thread that brings the news,
// with no lock of the server held but the one that keeps messages in order: while a message is
// being delivered, other threads that send or receive wait, and the thread itself delivers at once.
//
// A callback may call anything here, and may let go of the server: once the last reference is gone
// no further callback begins. An exception of a callback reaches the caller that brought the news.
class TARV_EXPORT IServer {
 public:
  using RequestHandler =
      std::function<void(const std::string& method, const cw::EncodableValue& params,
                         std::unique_ptr<IReply>&& reply)>;

  virtual ~IServer();

  // Sends a notification, or keeps it until the connection stands.
  virtual void SendNotify(std::string_view method, const cw::EncodableValue& params) = 0;
  // Calls `callback` once, without an error, when the client has asked to connect and Run was
  // called; before the client hears of it. At once, on this thread, when that is past already.
  virtual void OnConnected(
      std::function<void(const std::optional<Message::Error>&)>&& callback) = 0;
  // Calls `handler` for every request of this method from now on, instead of an earlier handler;
  // an empty one takes the earlier one away. Requests of a method without a handler are answered
  // with Message::kUnknownMethod.
  virtual void OnRequest(std::string_view method, RequestHandler handler) = 0;
  // Calls `callback` for every notification of this method, for the life of the server. Handlers of
  // one method run in the order of their registration.
  virtual void OnNotify(std::string_view method,
                        std::function<void(const Message::Notification&)>&& callback) = 0;
  // Declares that the handlers are in place: from now on the client may connect, and what it sent
  // so far is delivered once it has. Further calls do nothing.
  virtual void Run() = 0;
};

// The view of the transport's owner, who tells what happens on it. Any thread.
class TARV_EXPORT IOwnedServer : public IServer {
 public:
  ~IOwnedServer() override;

  // Hands in a message that arrived.
  virtual void Receive(Message&& message) = 0;
  // Declares that the user has let go of the server, though its owner still holds it: no callback
  // begins any more, and none is kept, whether it was given before or comes later. The last
  // reference does the same.
  virtual void Abandon() = 0;

  // `send` is called with every message that goes out, on the thread that sends it; without one,
  // what is sent is dropped. It passes the message on and returns: it must not wait for another
  // message, nor hand this one to another end in the same process before it returns.
  static std::shared_ptr<IOwnedServer> Create(std::function<void(Message&&)>&& send);
};

}  // namespace vorpc

#endif  // VORPC_SERVER_H

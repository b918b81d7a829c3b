// The calling end of a JSON-RPC connection.
#ifndef VORPC_CLIENT_H
#define VORPC_CLIENT_H

#include <cw/encodable_value.h>
#include <quarn/export.h>
#include <vorpc/message.h>

#include <functional>
#include <memory>
#include <optional>
#include <string_view>

namespace vorpc {

// The users' view of a connection; <vorpc/requests.h> has more of requests. Any thread; callbacks
// run on the thread that brings the news, with no lock of the client held but the one that keeps
// messages in order: while a message is being delivered, other threads that send or receive wait,
// and the thread itself delivers at once.
//
// A callback may call anything here, and may let go of the client: once the last reference is gone
// no further callback begins. An exception of a callback reaches the caller that brought the news.
class TARV_EXPORT IClient {
 public:
  virtual ~IClient();

  virtual bool IsConnected() const = 0;
  // True, for good, once connecting failed or the connection ended.
  virtual bool HasConnectionFailed() const = 0;

  // Begins to connect as soon as the transport has started. Further calls do nothing.
  virtual void Run() = 0;

  // Calls `callback` once with the outcome of connecting: no error, or why it failed. At once, on
  // this thread, when the outcome is known already.
  virtual void OnConnected(
      std::function<void(const std::optional<Message::Error>&)>&& callback) = 0;
  // Calls `callback` once when an established connection ends, with the transport's error if it had
  // one. At once, on this thread, when it has ended already.
  virtual void OnDisconnected(
      std::function<void(const std::optional<Message::Error>&)>&& callback) = 0;

  // Sends a request, or keeps it until the connection stands. `callback` is called once: with the
  // response, or with an error when connecting fails or the connection ends before there is one. A
  // request made after that end is answered with the same error before this returns.
  virtual void SendRequest(std::string_view method, const cw::EncodableValue& params,
                           std::function<void(const Message::Response&)>&& callback) = 0;
  // Sends a notification, or keeps it until the connection stands.
  virtual void SendNotify(std::string_view method, const cw::EncodableValue& params) = 0;
  // Calls `callback` for every notification of this method, for the life of the client. Handlers of
  // one method run in the order of their registration.
  virtual void OnNotify(std::string_view method,
                        std::function<void(const Message::Notification&)>&& callback) = 0;
};

// The view of the transport's owner, who tells what happens on it. Any thread.
class TARV_EXPORT IOwnedClient : public IClient {
 public:
  ~IOwnedClient() override;

  // Hands in a message that arrived.
  virtual void Receive(Message&& message) = 0;
  // Reports that the transport has gone, with its error if there is one. Ends the connection, or
  // the attempt to connect; before that attempt, makes it fail. Every request under way is answered
  // with the error, or with an internal error "Unknown runtime error" when there is none.
  virtual void Disconnect(std::optional<Message::Error> error) = 0;
  // Reports that the transport has started and takes messages.
  virtual void SetStarted() = 0;
  // Declares that the user has let go of the client, though its owner still holds it: no callback
  // begins any more, and none is kept, whether it was given before or comes later. The last
  // reference does the same.
  virtual void Abandon() = 0;

  // `send` is called with every message that goes out, on the thread that sends it; without one,
  // what is sent is dropped. It passes the message on and returns: it must not wait for another
  // message, nor hand this one to another end in the same process before it returns.
  static std::shared_ptr<IOwnedClient> Create(std::function<void(Message&&)>&& send);
};

}  // namespace vorpc

#endif  // VORPC_CLIENT_H

// cw::BinaryMessenger: bytes on named channels, to and from Dart.
#ifndef CW_BINARY_MESSENGER_H
#define CW_BINARY_MESSENGER_H

#include <cw/binary_reply.h>
#include <flutter_veltra/messenger.h>
#include <flutter_veltra/plugin_context.h>
#include <quarn/export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace cw {

// Takes a message's bytes, which live during the call only, and the function that answers it: once,
// then or later, and harmlessly after the engine is gone. A second answer sends nothing and writes
// a line to standard error.
using BinaryMessageHandler =
    std::function<void(const std::uint8_t* message, std::size_t size, BinaryReply reply)>;

// MethodChannel and EventChannel speak in calls and events over it. Belongs to the platform thread.
// A handler may replace or remove itself, and may end the engine.
class TARV_EXPORT BinaryMessenger {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  // The messenger of the context's engine. Empty when the context is null, too small or without an
  // engine, and when the embedder does not hand out its messenger table.
  static std::unique_ptr<BinaryMessenger> Create(FlutterVeltraPluginContext* context);

  BinaryMessenger(PrivateTag, _FlutterVeltraEngine* engine,
                  const FlutterVeltraMessengerProcTable& table)
      : engine_(engine), table_(table), life_(std::make_shared<const bool>(true)) {}
  // Removes the handlers that it installed.
  ~BinaryMessenger();
  BinaryMessenger(const BinaryMessenger&) = delete;
  BinaryMessenger& operator=(const BinaryMessenger&) = delete;

  _FlutterVeltraEngine* GetRef() const { return engine_; }

  // A channel's name must not have a NUL inside: each operation then does nothing, after a log
  // line.

  // Sends the bytes, which are copied. `reply`, unless it is empty, is called once, later, with
  // Dart's answer (null and 0 when nobody answers); it is destroyed uncalled when the message could
  // not be sent. Does nothing where the embedder cannot send.
  void Send(const std::string& channel, const std::uint8_t* message, std::size_t size,
            std::function<void(const std::uint8_t* data, std::size_t size)> reply = nullptr) const;

  // Makes `handler` the channel's only handler; an empty one removes it. Does nothing where the
  // embedder knows no handlers.
  void SetMessageHandler(const std::string& channel, BinaryMessageHandler handler);

  // Has `callback` told when Dart begins (true) and ends (false) to listen on the channel, until
  // the returned id is unsubscribed or the engine ends. 0 on failure, after a log line where the
  // embedder does not provide it.
  std::uint64_t OnChannelUpdateSubscribe(const std::string& channel,
                                         std::function<void(bool listening)> callback) const;
  void OnChannelUpdateUnsubscribe(const std::string& channel, std::uint64_t id) const;

  // Expires when the messenger begins to die.
  std::weak_ptr<const void> GetLife() const { return life_; }

  // Expires when the channel's present handler is replaced or removed, also while it is running;
  // expired when there is none.
  std::weak_ptr<const void> GetHandlerLife(const std::string& channel) const;

 private:
  // Shared with a running call, which may replace the handler.
  using StoredHandler = std::shared_ptr<const BinaryMessageHandler>;
  // The embedder is given a pointer to it.
  struct Slot {
    const BinaryMessenger* messenger = nullptr;
    StoredHandler handler;
    std::shared_ptr<const void> life;  // never shared, so that it goes when the handler does
  };

  static void OnMessage(void* user_data, const FlutterVeltraMessage* message);
  void RemoveHandler(const std::string& channel);

  _FlutterVeltraEngine* engine_;
  FlutterVeltraMessengerProcTable table_;
  std::map<std::string, Slot> handlers_;
  std::shared_ptr<const void> life_;
};

namespace internal {

// A messenger as long as it lives, for objects that may outlive it.
class TARV_EXPORT MessengerRef {
 public:
  explicit MessengerRef(BinaryMessenger* messenger) : messenger_(messenger) {
    if (messenger != nullptr) {
      life_ = messenger->GetLife();
    }
  }

  // Null once the messenger is gone, and when there never was one.
  BinaryMessenger* Get() const { return life_.expired() ? nullptr : messenger_; }

 private:
  BinaryMessenger* messenger_;
  std::weak_ptr<const void> life_;
};

}  // namespace internal

}  // namespace cw

#endif  // CW_BINARY_MESSENGER_H

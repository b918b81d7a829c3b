// veltra::host::Messenger: the Dart end of every channel, played by whoever holds the engine.
#ifndef VELTRA_HOST_MESSENGER_H
#define VELTRA_HOST_MESSENGER_H

#include <cw/encodable_value.h>
#include <cw/method_result.h>
#include <flutter_veltra/messenger.h>
#include <veltra/host/export.h>
#include <veltra/host/subscriptions.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace veltra::host {

class EngineState;

using Bytes = std::vector<std::uint8_t>;

// How a method call ended.
struct MethodOutcome {
  enum class Kind {
    Success,
    Error,
    NotImplemented,  // nobody handles the method, or the channel
    Malformed,       // the reply is no outcome of a call
  };

  Kind kind = Kind::NotImplemented;
  cw::EncodableValue value;  // of a success
  std::string code;          // these three of an error
  std::string message;
  cw::EncodableValue details;
};

// Called with the events of a channel; empty functions are not called.
struct EventHandlers {
  std::function<void(const cw::EncodableValue& event)> on_event;
  std::function<void(const std::string& code, const std::string& message,
                     const cw::EncodableValue& details)>
      on_error;
  std::function<void()> on_done;
};

// Everything is delivered by the event loop, in order, and never from within the call that sends
// it. Messages that are on their way when the engine ends are dropped. Belongs to the platform
// thread.
class VELTRA_HOST_EXPORT Messenger {
 public:
  using Reply = std::function<void(const Bytes& reply)>;
  using Handler = std::function<void(const Bytes& message, Reply reply)>;
  using OutcomeCallback = std::function<void(const MethodOutcome& outcome)>;
  // The result object wants exactly one outcome, then or later.
  using MethodHandler =
      std::function<void(const std::string& method, const cw::EncodableValue& arguments,
                         std::unique_ptr<cw::MethodResult<>> result)>;

  explicit Messenger(EngineState* engine);

  // Sends a message to the plug-in that handles the channel. `reply` gets the answer; no bytes when
  // nobody handles it.
  void Send(const std::string& channel, Bytes message, Reply reply = nullptr);

  // Listens on a channel; an empty handler ends that. A message that nobody listens to is answered
  // without bytes.
  void SetMessageHandler(const std::string& channel, Handler handler);

  // The same in method calls of the standard codec.
  void InvokeMethod(const std::string& channel, const std::string& method,
                    const cw::EncodableValue& arguments = {}, OutcomeCallback callback = nullptr);
  void SetMethodCallHandler(const std::string& channel, MethodHandler handler);

  // Begins to listen to the events of a channel, and tells whether the plug-in accepted that.
  void ListenEvents(const std::string& channel, EventHandlers handlers,
                    const cw::EncodableValue& arguments = {}, OutcomeCallback callback = nullptr);
  // Ends it: no event arrives any more.
  void CancelEvents(const std::string& channel, const cw::EncodableValue& arguments = {},
                    OutcomeCallback callback = nullptr);

  // Whether a plug-in handles the channel.
  bool HasPluginHandler(const std::string& channel) const;
  // How many messages plug-ins have not answered yet.
  std::size_t CountPendingResponses() const { return responses_.size(); }

  // The plug-ins' side: what the entries of these names do.
  bool SendFromPlugin(const char* channel, const std::uint8_t* message, std::size_t message_size,
                      FlutterVeltraReplyCallback reply, void* user_data);
  void SetPluginHandler(const char* channel, FlutterVeltraMessageCallback callback,
                        void* user_data);
  std::uint64_t OnChannelUpdateSubscribe(const char* channel, const FlutterVeltraBoolSlot* slot);
  void OnChannelUpdateUnsubscribe(const char* channel, std::uint64_t id);
  void SendResponse(_FlutterVeltraResponse* response, const std::uint8_t* data,
                    std::size_t data_size);

  // The engine ends: nothing is sent any more, and who waits for a reply gets an empty one.
  void End();
  // The rest of the end: subscriptions and handlers go.
  void Clear();

 private:
  struct PluginHandler {
    FlutterVeltraMessageCallback callback;
    void* user_data;
  };
  struct PluginReply {
    FlutterVeltraReplyCallback callback;
    void* user_data;
  };

  void Post(std::function<void(Messenger&)> action);
  void DeliverToPlugin(const std::string& channel, const Bytes& message, Reply reply);
  void DeliverToDart(const std::string& channel, const Bytes& message, std::uint64_t reply_id);
  void CompleteReply(std::uint64_t id, const Bytes& reply);

  EngineState* engine_;
  bool ended_ = false;
  std::map<std::string, PluginHandler> plugin_handlers_;
  std::map<std::string, std::shared_ptr<const Handler>> dart_handlers_;
  std::map<std::uint64_t, Reply> responses_;      // Dart waits for them
  std::map<std::uint64_t, PluginReply> replies_;  // plug-ins wait for them
  std::map<std::string, Subscriptions<bool>> updates_;
};

}  // namespace veltra::host

#endif  // VELTRA_HOST_MESSENGER_H

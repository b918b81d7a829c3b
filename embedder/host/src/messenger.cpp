#include <cw/method_channel.h>
#include <cw/method_codec.h>
#include <veltra/host/messenger.h>

#include <utility>

#include "dart_serializer.h"
#include "engine_state.h"
#include "tables.h"

namespace veltra::host {
namespace {

const cw::StandardMethodCodec& GetCodec() {
  return cw::StandardMethodCodec::GetInstance(&DartSerializer::GetInstance());
}

Bytes ToBytes(quarn::Buffer buffer) {
  auto bytes = buffer.Extract();
  return bytes ? std::move(*bytes) : Bytes();
}

Bytes EncodeCall(const std::string& method, const cw::EncodableValue& arguments) {
  const cw::MethodCall<> call(method, std::make_unique<cw::EncodableValue>(arguments));
  return ToBytes(GetCodec().EncodeMethodCall(call));
}

MethodOutcome DecodeOutcome(const Bytes& reply) {
  MethodOutcome outcome;
  if (reply.empty()) {
    return outcome;
  }
  outcome.kind = MethodOutcome::Kind::Malformed;
  cw::MethodResultFunctions<> result(
      [&outcome](const cw::EncodableValue* value) {
        outcome.kind = MethodOutcome::Kind::Success;
        outcome.value = value == nullptr ? cw::EncodableValue() : *value;
      },
      [&outcome](const std::string& code, const std::string& message,
                 const cw::EncodableValue* details) {
        outcome.kind = MethodOutcome::Kind::Error;
        outcome.code = code;
        outcome.message = message;
        outcome.details = details == nullptr ? cw::EncodableValue() : *details;
      },
      nullptr);
  cw::internal::DecodeOutcome<cw::EncodableValue>(GetCodec(), reply.data(), reply.size(), &result);
  return outcome;
}

Messenger::Reply MakeOutcomeReply(Messenger::OutcomeCallback callback) {
  if (!callback) {
    return nullptr;
  }
  return [callback = std::move(callback)](const Bytes& reply) { callback(DecodeOutcome(reply)); };
}

void HandleCall(const Messenger::MethodHandler& handler, const Bytes& message,
                const Messenger::Reply& reply) {
  const auto call =
      cw::internal::DecodeCall<cw::EncodableValue>(GetCodec(), message.data(), message.size());
  if (!call) {
    reply({});
    return;
  }
  const cw::EncodableValue none;
  const cw::EncodableValue* const arguments = call->GetArguments();
  handler(call->GetMethodName(), arguments == nullptr ? none : *arguments,
          std::make_unique<cw::internal::ChannelMethodResult<cw::EncodableValue>>(
              [reply](const std::uint8_t* data, std::size_t size) {
                reply(data == nullptr ? Bytes() : Bytes(data, data + size));
              },
              &GetCodec()));
}

void ReportError(const EventHandlers& handlers, const std::string& code, const std::string& message,
                 const cw::EncodableValue& details) {
  if (handlers.on_error) {
    handlers.on_error(code, message, details);
  }
}

void HandleEvent(const EventHandlers& handlers, const Bytes& event) {
  const MethodOutcome outcome = DecodeOutcome(event);
  switch (outcome.kind) {
    case MethodOutcome::Kind::Success:
      if (handlers.on_event) {
        handlers.on_event(outcome.value);
      }
      return;
    case MethodOutcome::Kind::Error:
      ReportError(handlers, outcome.code, outcome.message, outcome.details);
      return;
    case MethodOutcome::Kind::NotImplemented:  // no bytes: the end of the stream
      if (handlers.on_done) {
        handlers.on_done();
      }
      return;
    case MethodOutcome::Kind::Malformed:
      ReportError(handlers, "malformed-event", "The message is no event of the standard codec.",
                  event);
      return;
  }
}

}  // namespace

Messenger::Messenger(EngineState* engine) : engine_(engine) {}

void Messenger::Post(std::function<void(Messenger&)> action) {
  engine_->Post([action = std::move(action)](EngineState& engine) {
    Messenger& messenger = engine.Get<Messenger>();
    if (!messenger.ended_) {
      action(messenger);
    }
  });
}

// ---- From Dart to the plug-ins ------------------------------------------------------------------

void Messenger::Send(const std::string& channel, Bytes message, Reply reply) {
  Post([channel, message = std::move(message), reply = std::move(reply)](Messenger& messenger) {
    messenger.DeliverToPlugin(channel, message, reply);
  });
}

void Messenger::DeliverToPlugin(const std::string& channel, const Bytes& message, Reply reply) {
  const auto found = plugin_handlers_.find(channel);
  if (found == plugin_handlers_.end()) {
    if (reply) {
      reply({});
    }
    return;
  }
  _FlutterVeltraResponse* response = nullptr;
  if (reply) {
    const std::uint64_t id = quarn::details::CounterClient::GenerateId();
    responses_.emplace(id, std::move(reply));
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a handle, which nobody follows.
    response = reinterpret_cast<_FlutterVeltraResponse*>(id);
  }
  const FlutterVeltraMessage c_message{sizeof(FlutterVeltraMessage),
                                       channel.c_str(),
                                       message.empty() ? nullptr : message.data(),
                                       message.size(),
                                       response,
                                       &SendMessengerResponse};
  const PluginHandler handler = found->second;
  handler.callback(handler.user_data, &c_message);
}

void Messenger::SendResponse(_FlutterVeltraResponse* response, const std::uint8_t* data,
                             std::size_t data_size) {
  const auto taken = responses_.extract(reinterpret_cast<std::uint64_t>(response));
  if (!taken) {
    return;
  }
  Post([reply = taken.mapped(), bytes = data == nullptr ? Bytes() : Bytes(data, data + data_size)](
           Messenger&) { reply(bytes); });
}

void Messenger::SetPluginHandler(const char* channel, FlutterVeltraMessageCallback callback,
                                 void* user_data) {
  if (channel == nullptr) {
    return;
  }
  if (callback == nullptr || ended_) {
    plugin_handlers_.erase(channel);
  } else {
    plugin_handlers_[channel] = {callback, user_data};
  }
}

bool Messenger::HasPluginHandler(const std::string& channel) const {
  return plugin_handlers_.count(channel) != 0;
}

// ---- From the plug-ins to Dart ------------------------------------------------------------------

bool Messenger::SendFromPlugin(const char* channel, const std::uint8_t* message,
                               std::size_t message_size, FlutterVeltraReplyCallback reply,
                               void* user_data) {
  if (channel == nullptr || ended_) {
    return false;
  }
  std::uint64_t id = 0;
  if (reply != nullptr) {
    id = quarn::details::CounterClient::GenerateId();
    replies_.emplace(id, PluginReply{reply, user_data});
  }
  Post([name = std::string(channel), id,
        bytes = message == nullptr ? Bytes() : Bytes(message, message + message_size)](
           Messenger& messenger) { messenger.DeliverToDart(name, bytes, id); });
  return true;
}

void Messenger::DeliverToDart(const std::string& channel, const Bytes& message,
                              std::uint64_t reply_id) {
  const auto found = dart_handlers_.find(channel);
  if (found == dart_handlers_.end()) {
    CompleteReply(reply_id, {});
    return;
  }
  // Held for the length of the call, which may replace the handler.
  const std::shared_ptr<const Handler> handler = found->second;
  (*handler)(message, [engine = engine_->GetRef(), reply_id](const Bytes& reply) {
    if (const auto state = EngineState::FromRef(engine)) {
      state->Get<Messenger>().Post(
          [reply_id, reply](Messenger& messenger) { messenger.CompleteReply(reply_id, reply); });
    }
  });
}

void Messenger::CompleteReply(std::uint64_t id, const Bytes& reply) {
  const auto taken = replies_.extract(id);
  if (taken) {
    const PluginReply& waiting = taken.mapped();
    waiting.callback(waiting.user_data, reply.empty() ? nullptr : reply.data(), reply.size());
  }
}

void Messenger::SetMessageHandler(const std::string& channel, Handler handler) {
  const bool listens = static_cast<bool>(handler);
  const bool listened = dart_handlers_.count(channel) != 0;
  // The handler that was there goes last: what it owns may come back here.
  std::shared_ptr<const Handler> replaced;
  if (listens) {
    replaced =
        std::exchange(dart_handlers_[channel], std::make_shared<const Handler>(std::move(handler)));
  } else if (auto removed = dart_handlers_.extract(channel)) {
    replaced = removed.mapped();
  }
  if (listens != listened) {
    Post([channel, listens](Messenger& messenger) {
      const auto found = messenger.updates_.find(channel);
      if (found != messenger.updates_.end()) {
        found->second.Notify(listens);
      }
    });
  }
}

std::uint64_t Messenger::OnChannelUpdateSubscribe(const char* channel,
                                                  const FlutterVeltraBoolSlot* slot) {
  if (channel == nullptr || ended_) {
    const quarn::CStyleListener<bool> dropped(slot);
    return 0;
  }
  return updates_[channel].Add(slot);
}

void Messenger::OnChannelUpdateUnsubscribe(const char* channel, std::uint64_t id) {
  const auto found = channel == nullptr ? updates_.end() : updates_.find(channel);
  if (found != updates_.end()) {
    found->second.Remove(id);
  }
}

// ---- In method calls and events -----------------------------------------------------------------

void Messenger::InvokeMethod(const std::string& channel, const std::string& method,
                             const cw::EncodableValue& arguments, OutcomeCallback callback) {
  Send(channel, EncodeCall(method, arguments), MakeOutcomeReply(std::move(callback)));
}

void Messenger::SetMethodCallHandler(const std::string& channel, MethodHandler handler) {
  if (!handler) {
    SetMessageHandler(channel, nullptr);
    return;
  }
  SetMessageHandler(channel,
                    [handler = std::move(handler)](const Bytes& message, const Reply& reply) {
                      HandleCall(handler, message, reply);
                    });
}

void Messenger::ListenEvents(const std::string& channel, EventHandlers handlers,
                             const cw::EncodableValue& arguments, OutcomeCallback callback) {
  SetMessageHandler(channel,
                    [handlers = std::move(handlers)](const Bytes& event, const Reply& reply) {
                      HandleEvent(handlers, event);
                      reply({});
                    });
  InvokeMethod(channel, "listen", arguments, std::move(callback));
}

void Messenger::CancelEvents(const std::string& channel, const cw::EncodableValue& arguments,
                             OutcomeCallback callback) {
  SetMessageHandler(channel, nullptr);
  InvokeMethod(channel, "cancel", arguments, std::move(callback));
}

// ---- The end ------------------------------------------------------------------------------------

void Messenger::End() {
  ended_ = true;
  while (!replies_.empty()) {
    CompleteReply(replies_.begin()->first, {});
  }
}

void Messenger::Clear() {
  plugin_handlers_.clear();
  // Out of reach before they die: what they own may come back here.
  const auto dart_handlers = std::exchange(dart_handlers_, {});
  const auto responses = std::exchange(responses_, {});
  for (auto& [channel, subscriptions] : updates_) {
    subscriptions.Clear();
  }
}

}  // namespace veltra::host

#include <cw/binary_messenger.h>
#include <cw/internal/diagnostics.h>
#include <quarn/library_api.h>
#include <quarn/sized_struct.h>
#include <quarn/slot.h>

#include <utility>

#include "c_text.h"
#include "plugin_context.h"

namespace cw {

using internal::GetEngine;
using internal::LoadTable;
using internal::ReachesCWhole;

namespace {

using SendResponse = decltype(FlutterVeltraMessage::SendResponse);

// The one answer to one message; shared by the copies of its reply function.
class Responder {
 public:
  Responder(_FlutterVeltraEngine* engine, const FlutterVeltraMessage* message)
      : engine_(engine),
        response_(quarn::ReadField(message, &FlutterVeltraMessage::response)),
        send_(quarn::ReadField(message, &FlutterVeltraMessage::SendResponse)) {}

  void Send(const std::uint8_t* data, std::size_t size) {
    if (std::exchange(answered_, true)) {
      internal::WriteDiagnostic(
          "Error: Response can be set only once. Ignoring duplicate response.\n");
      return;
    }
    _FlutterVeltraResponse* const response = std::exchange(response_, nullptr);
    if (response != nullptr && send_ != nullptr) {
      send_(engine_, response, data, size);
    }
  }

 private:
  _FlutterVeltraEngine* engine_;
  _FlutterVeltraResponse* response_;
  SendResponse send_;
  bool answered_ = false;
};

using Reply = std::function<void(const std::uint8_t*, std::size_t)>;

constexpr std::string_view kChannel = "channel";

// Owns and calls what Send moved to the heap.
void OnReply(void* user_data, const std::uint8_t* data, std::size_t size) {
  const std::unique_ptr<Reply> reply(static_cast<Reply*>(user_data));
  (*reply)(data, size);
}

}  // namespace

std::unique_ptr<BinaryMessenger> BinaryMessenger::Create(FlutterVeltraPluginContext* context) {
  const auto table = LoadTable(context, &FlutterVeltraPluginContext::MessengerProcTableLoad);
  return table ? std::make_unique<BinaryMessenger>(PrivateTag(), GetEngine(context), *table)
               : nullptr;
}

BinaryMessenger::~BinaryMessenger() {
  life_.reset();
  while (!handlers_.empty()) {
    RemoveHandler(std::string(handlers_.begin()->first));
  }
}

void BinaryMessenger::Send(const std::string& channel, const std::uint8_t* message,
                           std::size_t size, Reply reply) const {
  const auto send = quarn::ReadField(&table_, &FlutterVeltraMessengerProcTable::Send);
  if (send == nullptr || !ReachesCWhole(kChannel, channel)) {
    return;
  }
  if (!reply) {
    send(engine_, channel.c_str(), message, size, nullptr, nullptr);
    return;
  }
  auto owned_reply = std::make_unique<Reply>(std::move(reply));
  if (send(engine_, channel.c_str(), message, size, &OnReply, owned_reply.get())) {
    static_cast<void>(owned_reply.release());  // OnReply's from here on.
  }
}

void BinaryMessenger::SetMessageHandler(const std::string& channel, BinaryMessageHandler handler) {
  const auto set = quarn::ReadField(&table_, &FlutterVeltraMessengerProcTable::SetMessageHandler);
  if (set == nullptr || !ReachesCWhole(kChannel, channel)) {
    return;
  }
  if (!handler) {
    RemoveHandler(channel);
    return;
  }
  auto stored = std::make_shared<const BinaryMessageHandler>(std::move(handler));
  Slot& slot = handlers_[channel];
  slot.messenger = this;
  slot.life = std::make_shared<const bool>(true);
  // Destroyed last: what the replaced handler owns may call back in here.
  const StoredHandler replaced = std::exchange(slot.handler, std::move(stored));
  set(engine_, channel.c_str(), &BinaryMessenger::OnMessage, &slot);
}

std::weak_ptr<const void> BinaryMessenger::GetHandlerLife(const std::string& channel) const {
  const auto found = handlers_.find(channel);
  return found == handlers_.end() ? nullptr : found->second.life;
}

void BinaryMessenger::RemoveHandler(const std::string& channel) {
  const auto removed = handlers_.extract(channel);
  const auto set = quarn::ReadField(&table_, &FlutterVeltraMessengerProcTable::SetMessageHandler);
  if (set != nullptr) {
    set(engine_, channel.c_str(), nullptr, nullptr);
  }
}

void BinaryMessenger::OnMessage(void* user_data, const FlutterVeltraMessage* message) {
  if (user_data == nullptr || message == nullptr) {
    return;
  }
  const auto* const slot = static_cast<const Slot*>(user_data);
  // Held for the length of the call, which may replace or remove the handler.
  const StoredHandler handler = slot->handler;
  const auto responder = std::make_shared<Responder>(slot->messenger->engine_, message);
  (*handler)(
      quarn::ReadField(message, &FlutterVeltraMessage::message),
      quarn::ReadField(message, &FlutterVeltraMessage::message_size),
      [responder](const std::uint8_t* data, std::size_t size) { responder->Send(data, size); });
}

std::uint64_t BinaryMessenger::OnChannelUpdateSubscribe(const std::string& channel,
                                                        std::function<void(bool)> callback) const {
  const auto subscribe = QUARN_FIND_ENTRY(table_, OnChannelUpdateSubscribe);
  if (subscribe == nullptr || !ReachesCWhole(kChannel, channel)) {
    return 0;
  }
  const auto slot = quarn::CreateSlot<FlutterVeltraBoolSlot, bool>(std::move(callback));
  return subscribe(engine_, channel.c_str(), &slot);
}

void BinaryMessenger::OnChannelUpdateUnsubscribe(const std::string& channel,
                                                 std::uint64_t id) const {
  const auto unsubscribe = QUARN_FIND_ENTRY(table_, OnChannelUpdateUnsubscribe);
  if (unsubscribe != nullptr && ReachesCWhole(kChannel, channel)) {
    unsubscribe(engine_, channel.c_str(), id);
  }
}

}  // namespace cw

#include "capi_listeners.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "require.h"

namespace tarv::fuzz {
namespace {

void Trap(void* /*user_data*/) { Require(false, "no field is read beyond the size"); }

// A listener whose slots ended before the user data hears all the same, and is nobody.
template <class Action>
void Tell(void* user_data, Action&& action) {
  if (user_data != nullptr) {
    auto& listener = *static_cast<Listener*>(user_data);
    action(*listener.all, listener);
  }
}

void Release(void* user_data) {
  Tell(user_data, [](Listeners& all, Listener& listener) { all.OnReleased(listener); });
}

void Started(void* user_data, int code, const char* /*message*/, std::size_t /*chunk*/) {
  Tell(user_data, [code](Listeners& all, Listener& listener) { all.OnStarted(listener, code); });
}

void Message(void* user_data, const char* message, std::size_t chunk) {
  Tell(user_data, [message, chunk](Listeners& all, Listener& listener) {
    all.OnMessage(listener, message, chunk);
  });
}

void Disconnect(void* user_data, int /*code*/, const char* /*message*/, std::size_t /*chunk*/) {
  Tell(user_data, [](Listeners& all, Listener& listener) { all.OnEnded(listener); });
}

void Invoke(void* user_data, TARVReplyIntentSlot* reply) {
  if (user_data == nullptr) {
    reply->release(reply->user_data);
    return;
  }
  Tell(user_data,
       [reply](Listeners& all, const Listener& listener) { all.OnInvoked(listener, *reply); });
}

void CheckAlive(const Listener& listener) {
  Require(listener.released == 0, "nothing is told after the release");
}

}  // namespace

// All fields but the size are pointers.
template <class Slots>
void Listeners::Finish(Slots& slots, void* handle, std::size_t size) {
  listeners_.push_back(std::make_unique<Listener>());
  Listener& listener = *listeners_.back();
  listener.all = this;
  listener.handle = handle;
  listener.is_released = size >= sizeof(Slots);  // the user data is the last field
  slots.size = size;
  slots.user_data = &listener;
  auto* const trap = &Trap;
  for (std::size_t at = sizeof(std::size_t); at < sizeof(Slots); at += sizeof(void*)) {
    if (at + sizeof(void*) > size) {
      std::memcpy(reinterpret_cast<char*>(&slots) + at, &trap, sizeof(trap));
    }
  }
}

TARVRpcClientSlots Listeners::MakeClientSlots(void* client, std::size_t size) {
  TARVRpcClientSlots slots{};
  slots.OnStarted = &Started;
  slots.OnDisconnect = &Disconnect;
  slots.OnMessage = &Message;
  slots.Release = &Release;
  Finish(slots, client, size);
  return slots;
}

TARVRpcServerSlots Listeners::MakeServerSlots(void* server, std::size_t size) {
  TARVRpcServerSlots slots{};
  slots.OnStarted = &Started;
  slots.OnMessage = &Message;
  slots.Release = &Release;
  Finish(slots, server, size);
  return slots;
}

TARVOpenUriSlot Listeners::MakeUriSlot(void* intents, std::size_t size) {
  TARVOpenUriSlot slot{};
  slot.callback = [](void* user_data, bool /*success*/) {
    Tell(user_data, [](Listeners& all, Listener& listener) { all.OnAnswered(listener); });
  };
  slot.release = &Release;
  Finish(slot, intents, size);
  return slot;
}

TARVRegisterIntentSlot Listeners::MakeIntentSlot(void* intents, std::size_t size) {
  TARVRegisterIntentSlot slot{};
  slot.callback = &Invoke;
  slot.release = &Release;
  Finish(slot, intents, size);
  return slot;
}

void Listeners::Disown(std::size_t index) {
  Listener& listener = *listeners_[index];
  Require(listener.started + listener.released == 0, "slots that are refused are not touched");
  listener.is_released = false;
}

void Listeners::CheckReleased() const {
  for (const auto& listener : listeners_) {
    Require(listener->released == (listener->is_released ? 1 : 0), "each release comes once");
  }
}

void Listeners::CheckTexts() const {
  for (const LockedText& locked : texts_) {
    Require(locked.copy == locked.text, "a text that is locked stays");
  }
}

void Listeners::ForgetText(const void* handle, std::size_t chunk) {
  texts_.erase(std::remove_if(texts_.begin(), texts_.end(),
                              [&](const LockedText& locked) {
                                return locked.handle == handle && locked.chunk == chunk;
                              }),
               texts_.end());
}

void Listeners::OnStarted(Listener& listener, int code) {
  CheckAlive(listener);
  Require(++listener.started == 1, "started once");
  listener.has_failed = code != 0;
  Nest();
}

void Listeners::OnEnded(Listener& listener) {
  CheckAlive(listener);
  Require(listener.started == 1 && !listener.has_failed, "only what has started ends");
  Require(++listener.ended == 1, "ended once");
  Nest();
}

void Listeners::OnMessage(Listener& listener, const char* text, std::size_t chunk) {
  CheckAlive(listener);
  Require(listener.started == 1 && listener.ended == 0, "messages come between start and end");
  if (chunk == 0) {
    Require(*text == '\0', "without a chunk there is no text");
  } else {
    texts_.push_back({listener.handle, chunk, text, text});
  }
  Nest();
}

void Listeners::OnAnswered(Listener& listener) {
  CheckAlive(listener);
  Require(++listener.answered == 1, "answered once");
  Nest();
}

void Listeners::OnInvoked(const Listener& listener, const TARVReplyIntentSlot& reply) {
  CheckAlive(listener);
  replies_.push_back(reply);
  Nest();
}

// The texts of a client or server go with it.
void Listeners::OnReleased(Listener& listener) {
  Require(++listener.released == 1, "released once");
  texts_.erase(
      std::remove_if(texts_.begin(), texts_.end(),
                     [&](const LockedText& locked) { return locked.handle == listener.handle; }),
      texts_.end());
  Nest();
}

}  // namespace tarv::fuzz

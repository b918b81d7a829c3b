// The part that the client's and the server's wrapper share: each joins an end of JSON-RPC, which
// gives texts their meaning, with an end of the service, which moves them.
#ifndef WRAPPER_SRC_RPC_END_H
#define WRAPPER_SRC_RPC_END_H

#include <quarn/internal/known_length.h>
#include <vorpc/internal/message_text.h>
#include <vorpc/internal/outgoing_text.h>
#include <vorpc/message.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace tarv::details {

// The wrapper whose handle the service gives back, or nothing once it is gone.
template <class Wrapper>
std::shared_ptr<Wrapper> Resolve(void* user_data) {
  using Ref = decltype(std::declval<Wrapper>().GetRef());
  return Wrapper::FromRef(static_cast<Ref>(user_data));
}

// A function that sends the messages of a JSON-RPC end through the service's `handle`, by the entry
// that `find_entry` gives for a table, unless it gives null. The table may be gone by then, since a
// reply or a running callback outlives the wrapper: the message is then dropped.
template <class Api, class Handle, class FindEntry>
std::function<void(vorpc::Message&&)> MakeSender(const std::shared_ptr<Api>& table, Handle* handle,
                                                 FindEntry find_entry) {
  return [weak = std::weak_ptr<Api>(table), handle, find_entry](vorpc::Message&& message) {
    const auto api = weak.lock();
    const auto send = api ? find_entry(api->GetTable()) : nullptr;
    if (send == nullptr) {
      return;
    }
    // Of a large payload only one form at a time shall be in memory.
    const vorpc::OutgoingText outgoing(std::exchange(message, {}));
    if (const std::string& text = outgoing.Get(); !text.empty()) {
      const quarn::KnownLength known(quarn::TextWay::kOut, text);
      send(handle, text.c_str());
    }
  };
}

// Whether an end of a connection may have a use for it.
inline bool IsMessage(const vorpc::Message& message) {
  return message.GetRequest() != nullptr || message.GetResponse() != nullptr ||
         message.GetNotification() != nullptr;
}

// Warns of a text of which no message can be made, and shows its beginning.
void WarnAboutText(std::string_view text, const std::string& peer);

// "the task 'x'", as log lines name the peer of a client.
std::string PeerOfClient(const std::string& task);
// The peer of a server; there is one in a process.
std::string PeerOfServer();

// Hands the message of a text that arrived to `end`; nothing for an empty text. `name_peer` gives
// the name of the peer. Throws std::logic_error for null.
template <class End, class NamePeer>
void Deliver(const char* message, End& end, const NamePeer& name_peer) {
  const std::string_view text = quarn::FindView(quarn::TextWay::kIn, message);
  if (text.empty()) {
    return;
  }
  vorpc::Message decoded = vorpc::MessageFromText(text);
  if (!IsMessage(decoded)) {
    WarnAboutText(text, name_peer());
  }
  end.Receive(std::move(decoded));
}

}  // namespace tarv::details

#endif  // WRAPPER_SRC_RPC_END_H

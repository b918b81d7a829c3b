// The requests that wait for their responses.
#ifndef VORPC_SRC_PENDING_REQUESTS_H
#define VORPC_SRC_PENDING_REQUESTS_H

#include <vorpc/message.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <unordered_map>
#include <vector>

namespace vorpc::details {

using ResponseCallback = std::function<void(const Message::Response&)>;

// The requests of one client that wait, and the last of those that nobody waits for any more. The
// client's lock guards it; what it gives out is destroyed after that lock was released.
class PendingRequests {
 public:
  // As many late responses are told from messages that nobody ever asked for. Enough for every
  // request that a peer still works at; the bound keeps what a silent peer costs small.
  static constexpr std::size_t kMaxForgotten = 1024;

  struct Request {
    std::uint64_t number;  // requests are answered in the order of their numbers when all end
    ResponseCallback callback;
  };
  using Entry = std::unordered_map<Message::ID, Request>::node_type;

  void Add(const Message::ID& id, Request&& request) { requests_.emplace(id, std::move(request)); }

  // Ends the wait for a response; none when no request with this id waits.
  std::optional<ResponseCallback> Take(const Message::ID& id);
  // The same, and a response that comes all the same is expected from now on.
  std::optional<ResponseCallback> Forget(const Message::ID& id);
  // True, once, for the id of a request that was forgotten.
  bool TakeForgotten(const Message::ID& id);

  // All that wait, in the order of their numbers; none of them when memory runs out for the list.
  std::vector<Entry> TakeAll() noexcept;
  // The one with the lowest number; an empty entry when none waits. Takes no memory, but time.
  Entry TakeFirst();

 private:
  std::unordered_map<Message::ID, Request> requests_;
  // The last one at the end. A list, because even an empty deque takes memory, and an end of the
  // client makes an empty one of these.
  std::list<Message::ID> forgotten_;
};

}  // namespace vorpc::details

#endif  // VORPC_SRC_PENDING_REQUESTS_H

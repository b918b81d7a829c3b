// Whose messages an end of a connection receives, as its log lines name it.
#ifndef VORPC_INTERNAL_NAMED_PEER_H
#define VORPC_INTERNAL_NAMED_PEER_H

#include <string>
#include <utility>

namespace vorpc {

// Implemented by every client and server of this library; found by dynamic_cast. An end without a
// name leaves the lines about its peer's messages as they are.
class INamedPeer {
 public:
  // "the task 'x'". Before the first message arrives.
  virtual void SetPeerName(std::string name) = 0;

 protected:
  ~INamedPeer() = default;
};

// Names the peer of a client or server.
template <class End>
void NamePeer(End* end, std::string name) {
  if (auto* const named = dynamic_cast<INamedPeer*>(end)) {
    named->SetPeerName(std::move(name));
  }
}

}  // namespace vorpc

#endif  // VORPC_INTERNAL_NAMED_PEER_H

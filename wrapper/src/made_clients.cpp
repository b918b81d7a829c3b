#include "made_clients.h"

#include <new>

namespace tarv::details {

// Never destroyed: managers and clients of static life use it at the end of the process. Made
// without memory: the end of a client may be the first to ask for it.
MadeClients& MadeClients::Get() {
  alignas(MadeClients) static unsigned char storage[sizeof(MadeClients)];
  static auto* const kClients = new (storage) MadeClients();
  return *kClients;
}

void MadeClients::Add(Ref client, const Maker& maker) {
  const std::lock_guard lock(mutex_);
  clients_.emplace(client, maker);
}

void MadeClients::Remove(Ref client) {
  const std::lock_guard lock(mutex_);
  clients_.erase(client);
}

std::vector<std::pair<MadeClients::Ref, MadeClients::Maker>> MadeClients::TakeClientsOf(
    _TARVManagerRef* service) {
  std::vector<std::pair<Ref, Maker>> taken;
  const std::lock_guard lock(mutex_);
  for (auto client = clients_.begin(); client != clients_.end();) {
    if (client->second.service == service) {
      taken.emplace_back(*client);
      client = clients_.erase(client);
    } else {
      ++client;
    }
  }
  return taken;
}

}  // namespace tarv::details

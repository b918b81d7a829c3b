#include "made_clients.h"

namespace tarv::details {

// Never destroyed: managers and clients of static life use it at the end of the process.
MadeClients& MadeClients::Get() {
  static auto* const kClients = new MadeClients();
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

#include "pending_requests.h"

#include <algorithm>
#include <utility>

namespace vorpc::details {

std::optional<ResponseCallback> PendingRequests::Take(const Message::ID& id) {
  const auto found = requests_.find(id);
  if (found == requests_.end()) {
    return std::nullopt;
  }
  ResponseCallback callback = std::move(found->second.callback);
  requests_.erase(found);
  return callback;
}

std::optional<ResponseCallback> PendingRequests::Forget(const Message::ID& id) {
  auto callback = Take(id);
  if (callback) {
    forgotten_.push_back(id);
  }
  if (forgotten_.size() > kMaxForgotten) {
    forgotten_.pop_front();
  }
  return callback;
}

bool PendingRequests::TakeForgotten(const Message::ID& id) {
  const auto found = std::find(forgotten_.begin(), forgotten_.end(), id);
  if (found == forgotten_.end()) {
    return false;
  }
  forgotten_.erase(found);
  return true;
}

std::vector<PendingRequests::Entry> PendingRequests::TakeAll() {
  std::vector<Entry> entries;
  entries.reserve(requests_.size());
  for (auto& [id, request] : requests_) {
    entries.push_back({id, std::move(request)});
  }
  requests_.clear();
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.request.number < b.request.number; });
  return entries;
}

}  // namespace vorpc::details

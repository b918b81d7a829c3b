#include "pending_requests.h"

#include <algorithm>
#include <new>
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

std::vector<PendingRequests::Entry> PendingRequests::TakeAll() noexcept {
  std::vector<Entry> entries;
  try {
    entries.reserve(requests_.size());
  } catch (const std::bad_alloc&) {
    return entries;
  }
  while (!requests_.empty()) {
    entries.push_back(requests_.extract(requests_.begin()));
  }
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.mapped().number < b.mapped().number; });
  return entries;
}

PendingRequests::Entry PendingRequests::TakeFirst() {
  const auto first = std::min_element(
      requests_.begin(), requests_.end(),
      [](const auto& a, const auto& b) { return a.second.number < b.second.number; });
  return first == requests_.end() ? Entry() : requests_.extract(first);
}

}  // namespace vorpc::details

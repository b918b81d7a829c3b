#include "trace_filter.h"

#include <utility>

namespace tarvctl {

TraceFilter::TraceFilter(const Request& request, Handle handle)
    : request_(request),
      handle_(std::move(handle)),
      since_(ParseDuration(request.since, "--since").count()),
      slower_(ParseDuration(request.slower, "--slower").count()) {}

bool TraceFilter::IsWanted(const Item& item) const {
  return item.time >= since_ && (request_.only_task.empty() || item.task == request_.only_task) &&
         (request_.method.empty() || item.method == request_.method);
}

bool TraceFilter::IsWantedAnswer(const Item& item) const {
  return (!request_.errors || item.is_error) && (slower_ == 0 || item.latency >= slower_);
}

void TraceFilter::Add(Item&& item) {
  if (!IsWanted(item)) {
    return;
  }
  if (!request_.errors && slower_ == 0) {
    handle_(item);
    return;
  }
  const std::string key = item.task + '\n' + item.id;
  if (item.kind == Item::Kind::kRequest) {
    waiting_.insert_or_assign(key, std::move(item));
    return;
  }
  if (item.kind == Item::Kind::kResponse) {
    AddAnswer(item, key);
    return;
  }
  const bool is_end = item.kind == Item::Kind::kEnd && request_.errors;
  if (is_end || (item.is_error && slower_ == 0)) {
    handle_(item);
  }
}

void TraceFilter::AddAnswer(const Item& item, const std::string& key) {
  const auto request = waiting_.extract(key);
  if (!IsWantedAnswer(item)) {
    return;
  }
  if (!request.empty()) {
    handle_(request.mapped());
  }
  handle_(item);
}

}  // namespace tarvctl

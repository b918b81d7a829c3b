// Which items of a record are shown.
#ifndef TARVCTL_TRACE_FILTER_H
#define TARVCTL_TRACE_FILTER_H

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>

#include "pairing.h"
#include "request.h"

namespace tarvctl {

// By task, method and time every item is judged by itself. With --errors or --slower, a request
// waits for its answer: both are shown, or neither.
class TraceFilter {
 public:
  using Handle = std::function<void(const Item&)>;

  TraceFilter(const Request& request, Handle handle);
  void Add(Item&& item);

 private:
  bool IsWanted(const Item& item) const;
  bool IsWantedAnswer(const Item& item) const;
  void AddAnswer(const Item& item, const std::string& key);

  const Request& request_;
  const Handle handle_;
  const std::int64_t since_;
  const std::int64_t slower_;
  std::unordered_map<std::string, Item> waiting_;  // requests, by task and id
};

}  // namespace tarvctl

#endif  // TARVCTL_TRACE_FILTER_H

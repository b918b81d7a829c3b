#include "totals.h"

#include <algorithm>

namespace tarvctl {
namespace {

constexpr double kNanosecondsPerMs = 1e6;

// The value that the part `share` of them stays within; 0 of none.
double Quantile(std::vector<float>& values, double share) {
  if (values.empty()) {
    return 0;
  }
  const auto rank = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + rank, values.end());
  return static_cast<double>(values[static_cast<std::size_t>(rank)]);
}

}  // namespace

Totals::Entry& Totals::EntryOf(const std::string& task, const std::string& method) {
  Entry& entry = entries_[{task, method}];
  if (entry.totals.method.empty()) {
    entry.totals.task = task;
    entry.totals.method = method;
  }
  return entry;
}

void Totals::Add(const Item& item) {
  if (item.method.empty()) {
    return;
  }
  Entry& entry = EntryOf(item.task, item.method);
  entry.totals.bytes += item.bytes;
  entry.totals.errors += item.is_error ? 1 : 0;
  entry.totals.count += item.kind == Item::Kind::kResponse ? 0 : 1;
  if (item.latency >= 0) {
    entry.latencies.push_back(
        static_cast<float>(static_cast<double>(item.latency) / kNanosecondsPerMs));
  }
}

void Totals::AddUnanswered(const Unanswered& request) {
  ++EntryOf(request.task, request.method).totals.unanswered;
}

std::vector<MethodTotals> Totals::Get() {
  std::vector<MethodTotals> all;
  for (auto& [key, entry] : entries_) {
    entry.totals.median_ms = Quantile(entry.latencies, 0.5);
    entry.totals.p99_ms = Quantile(entry.latencies, 0.99);
    all.push_back(entry.totals);
  }
  return all;
}

}  // namespace tarvctl

// Sums by method.
#ifndef TARVCTL_TOTALS_H
#define TARVCTL_TOTALS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "pairing.h"

namespace tarvctl {

struct MethodTotals {
  std::string task;
  std::string method;
  std::size_t count = 0;  // requests and notifications
  std::size_t errors = 0;
  std::size_t unanswered = 0;
  std::size_t bytes = 0;  // of its messages, answers included
  double median_ms = 0;
  double p99_ms = 0;
};

class Totals {
 public:
  void Add(const Item& item);
  void AddUnanswered(const Unanswered& request);
  // By task and method.
  std::vector<MethodTotals> Get();

 private:
  struct Entry {
    MethodTotals totals;
    std::vector<float> latencies;  // in milliseconds; a million of them are four megabytes
  };

  Entry& EntryOf(const std::string& task, const std::string& method);

  std::map<std::pair<std::string, std::string>, Entry> entries_;
};

}  // namespace tarvctl

#endif  // TARVCTL_TOTALS_H

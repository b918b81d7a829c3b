// What has begun and must end exactly once.
#ifndef TORTURE_SOAK_LEDGER_H
#define TORTURE_SOAK_LEDGER_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace soak {

class Ledger {
 public:
  using Entry = std::uint64_t;

  // `what` stands in the complaint if it does not end as it must.
  Entry Begin(const std::string& what);
  // `how`: "kValue", "kTimedOut" and so on.
  void End(Entry entry, const std::string& how);
  // From now on the entry must not end any more: whoever would hear of it was let go.
  void Forget(Entry entry);
  void Complain(const std::string& complaint);

  bool IsEmpty() const { return open_.empty(); }
  std::uint64_t CountBegun() const { return last_; }
  std::uint64_t CountForgotten() const { return forgotten_; }
  const std::map<std::string, std::uint64_t>& GetEnds() const { return ends_; }
  std::vector<std::string> GetOpen() const;
  const std::vector<std::string>& GetComplaints() const { return complaints_; }

 private:
  Entry last_ = 0;
  std::uint64_t forgotten_ = 0;
  std::map<Entry, std::string> open_;
  std::map<std::string, std::uint64_t> ends_;
  std::vector<std::string> complaints_;
};

}  // namespace soak

#endif  // TORTURE_SOAK_LEDGER_H

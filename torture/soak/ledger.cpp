#include "ledger.h"

namespace soak {

Ledger::Entry Ledger::Begin(const std::string& what) {
  open_.emplace(++last_, what);
  return last_;
}

void Ledger::End(Entry entry, const std::string& how) {
  if (open_.erase(entry) == 0) {
    Complain("number " + std::to_string(entry) + " ends twice, or after it was let go of, with " +
             how);
    return;
  }
  ++ends_[how];
}

void Ledger::Forget(Entry entry) { forgotten_ += open_.erase(entry); }

void Ledger::Complain(const std::string& complaint) { complaints_.push_back(complaint); }

std::vector<std::string> Ledger::GetOpen() const {
  std::vector<std::string> open;
  for (const auto& [entry, what] : open_) {
    open.push_back("number " + std::to_string(entry) + ": " + what);
  }
  return open;
}

}  // namespace soak

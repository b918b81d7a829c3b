// Account of what was asked for, and of how it ended.
#ifndef TORTURE_ACCOUNT_H
#define TORTURE_ACCOUNT_H

#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace tarv::torture {

// Something that was asked for, and is to end exactly once: by a call of its callback, or by an
// exception of the call that asked.
class Debt {
 public:
  void Pay() { ++payments_; }
  void Refuse() { is_refused_ = true; }
  bool IsPaid() const { return is_refused_ || payments_ > 0; }
  bool IsRefused() const { return is_refused_; }
  // "", "unanswered" or "answered twice".
  const char* WhatIsWrong() const;

 private:
  int payments_ = 0;
  bool is_refused_ = false;
};

// Debts that are paid in the order in which they were added, as messages keep theirs.
class DebtQueue {
 public:
  void Add(std::shared_ptr<Debt> debt);
  // Pays the first that was not refused: what was refused was not sent.
  void PayFirst();
  void PayAll();

 private:
  std::vector<std::shared_ptr<Debt>> debts_;
};

class Account {
 public:
  std::shared_ptr<Debt> Owe();
  // Lets no std::bad_alloc out: it counts as a refusal, and ends the debt, if there is one.
  template <class Call>
  void Try(const std::shared_ptr<Debt>& debt, const Call& call) {
    try {
      call();
    } catch (const std::bad_alloc&) {
      ++refusals_;
      if (debt != nullptr) {
        debt->Refuse();
      }
    }
  }
  template <class Call>
  void Try(const Call& call) {
    Try(nullptr, call);
  }
  void CountError() { ++errors_; }

  bool IsSettled() const { return CountOwed() == 0; }
  std::size_t CountOwed() const;
  // What is wrong with one of the debts, or "".
  std::string WhatIsWrong() const;
  int CountRefusals() const { return refusals_; }
  int CountErrors() const { return errors_; }

 private:
  std::vector<std::shared_ptr<Debt>> debts_;
  int refusals_ = 0;
  int errors_ = 0;
};

}  // namespace tarv::torture

#endif  // TORTURE_ACCOUNT_H

#include "account.h"

#include <algorithm>
#include <utility>

#include "failing_memory.h"

namespace tarv::torture {

const char* Debt::WhatIsWrong() const {
  const int ends = payments_ + (is_refused_ ? 1 : 0);
  return ends == 1 ? "" : ends == 0 ? "unanswered" : "answered twice";
}

void DebtQueue::Add(std::shared_ptr<Debt> debt) {
  const OwnMemory own;
  debts_.push_back(std::move(debt));
}

void DebtQueue::PayFirst() {
  const OwnMemory own;
  while (!debts_.empty()) {
    const auto debt = debts_.front();
    debts_.erase(debts_.begin());
    if (!debt->IsRefused()) {
      debt->Pay();
      return;
    }
  }
}

void DebtQueue::PayAll() {
  while (!debts_.empty()) {
    PayFirst();
  }
}

std::shared_ptr<Debt> Account::Owe() {
  const OwnMemory own;
  debts_.push_back(std::make_shared<Debt>());
  return debts_.back();
}

std::size_t Account::CountOwed() const {
  return static_cast<std::size_t>(std::count_if(debts_.begin(), debts_.end(),
                                                [](const auto& debt) { return !debt->IsPaid(); }));
}

std::string Account::WhatIsWrong() const {
  for (const auto& debt : debts_) {
    if (*debt->WhatIsWrong() != '\0') {
      return debt->WhatIsWrong();
    }
  }
  return "";
}

}  // namespace tarv::torture

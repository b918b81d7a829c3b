#include "account.h"

#include <algorithm>

#include "failing_memory.h"

namespace tarv::torture {

const char* Debt::WhatIsWrong() const {
  const int ends = payments_ + (is_refused_ ? 1 : 0);
  return ends == 1 ? "" : ends == 0 ? "unanswered" : "answered twice";
}

std::shared_ptr<Debt> Account::Owe() {
  const OwnMemory own;
  debts_.push_back(std::make_shared<Debt>());
  return debts_.back();
}

bool Account::IsSettled() const {
  return std::all_of(debts_.begin(), debts_.end(), [](const auto& debt) { return debt->IsPaid(); });
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

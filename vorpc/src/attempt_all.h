// Runs steps that are all owed, whatever one of them throws.
#ifndef VORPC_SRC_ATTEMPT_ALL_H
#define VORPC_SRC_ATTEMPT_ALL_H

#include <exception>

namespace vorpc::details {

// The first exception waits until Finish, the later ones are dropped.
class AttemptAll {
 public:
  template <class Step>
  void Run(const Step& step) {
    try {
      step();
    } catch (...) {
      if (first_ == nullptr) {
        first_ = std::current_exception();
      }
    }
  }

  void Finish() const {
    if (first_ != nullptr) {
      std::rethrow_exception(first_);
    }
  }

 private:
  std::exception_ptr first_;
};

}  // namespace vorpc::details

#endif  // VORPC_SRC_ATTEMPT_ALL_H

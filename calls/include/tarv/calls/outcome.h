// tarv::Outcome: what a call ended with, a value or a CallError.
#ifndef TARV_CALLS_OUTCOME_H
#define TARV_CALLS_OUTCOME_H

#include <tarv/calls/call_error.h>

#include <type_traits>
#include <utility>
#include <variant>

namespace tarv {

//   if (outcome) { Use(outcome->total); } else { Show(outcome.GetError().what()); }
//
// A value. Outcome<void> has no value to look at, but the same operations otherwise.
template <class T>
class Outcome {
 public:
  // std::monostate stands for a value of type void.
  using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

  Outcome(Value value) : content_(std::in_place_index<0>, std::move(value)) {}
  Outcome(CallError error) : content_(std::in_place_index<1>, std::move(error)) {}

  bool HasValue() const { return content_.index() == 0; }
  explicit operator bool() const { return HasValue(); }

  // The value. Only when there is one: otherwise std::bad_variant_access.
  Value& operator*() & { return std::get<0>(content_); }
  const Value& operator*() const& { return std::get<0>(content_); }
  Value&& operator*() && { return std::get<0>(std::move(content_)); }
  Value* operator->() { return &**this; }
  const Value* operator->() const { return &**this; }

  // The error. Only when there is one: otherwise std::bad_variant_access.
  const CallError& GetError() const { return std::get<1>(content_); }

  // The value, or the error thrown: Totals totals = std::move(outcome).Take().
  Value Take() && {
    if (!HasValue()) {
      throw std::get<1>(std::move(content_));
    }
    return std::get<0>(std::move(content_));
  }

 private:
  std::variant<Value, CallError> content_;
};

}  // namespace tarv

#endif  // TARV_CALLS_OUTCOME_H

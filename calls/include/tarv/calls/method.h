// tarv::Method: the contract of one method, shared by application and task.
//
//   inline constexpr tarv::Method<Totals(Texts), Step> kCount{"count", "counts the words of each text"};
#ifndef TARV_CALLS_METHOD_H
#define TARV_CALLS_METHOD_H

#include <string_view>

namespace tarv {

// Method<Result(Parameter), Progress>: takes one value and gives one, each of any type that value.h
// lists; void for none: Method<Result()>, Method<void(Parameter)>, Method<void()>. Progress is the
// type of the steps that the task reports meanwhile, void when it reports none.
template <class Signature, class Progress = void>
struct Method;

template <class Result, class Parameter, class Progress>
struct Method<Result(Parameter), Progress> {
  std::string_view name;       // not empty; "$/" begins names of the layer's own
  std::string_view help = {};  // one line, which tools show
};

template <class Result, class Progress>
struct Method<Result(), Progress> {
  std::string_view name;
  std::string_view help = {};
};

namespace details {

// Keeps a parameter of a function from deciding what a template's argument is.
template <class T>
struct Given {
  using Type = T;
};

}  // namespace details
}  // namespace tarv

#endif  // TARV_CALLS_METHOD_H

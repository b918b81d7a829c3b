// What a callback owes however it ends.
#ifndef WRAPPER_SRC_FINALLY_H
#define WRAPPER_SRC_FINALLY_H

#include <utility>

namespace tarv::details {

// Calls `action` at the end of the scope, also when an exception ends it.
template <class Action>
class Finally {
 public:
  explicit Finally(Action action) : action_(std::move(action)) {}
  ~Finally() { action_(); }
  Finally(const Finally&) = delete;
  Finally& operator=(const Finally&) = delete;

 private:
  Action action_;
};

}  // namespace tarv::details

#endif  // WRAPPER_SRC_FINALLY_H

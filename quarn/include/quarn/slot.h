// CreateSlot: a std::function as a C slot that can cross the C interface.
#ifndef QUARN_SLOT_H
#define QUARN_SLOT_H

#include <functional>
#include <memory>
#include <utility>

namespace quarn {

namespace details {

template <class... Args>
void CallSlotFunction(void* user_data, Args... args) {
  if (user_data != nullptr) {
    (*static_cast<std::function<void(Args...)>*>(user_data))(std::move(args)...);
  }
}

template <class... Args>
void DeleteSlotFunction(void* user_data) {
  delete static_cast<std::function<void(Args...)>*>(user_data);
}

}  // namespace details

// Moves `function` to the heap and returns a `Slot` (a structure of `size`, `callback`, `release`
// and `user_data`) that owns it: whoever takes the slot calls `release` exactly once, which
// destroys the function. `callback` forwards its arguments; for an empty function it throws
// std::bad_function_call.
//
//   auto slot = quarn::CreateSlot<TARVOpenUriSlot, bool>([](bool opened) { ... });
template <class Slot, class... Args, class Fn>
Slot CreateSlot(Fn&& function) {
  Slot slot{};
  slot.size = sizeof(Slot);
  slot.callback = &details::CallSlotFunction<Args...>;
  slot.release = &details::DeleteSlotFunction<Args...>;
  slot.user_data =
      std::make_unique<std::function<void(Args...)>>(std::forward<Fn>(function)).release();
  return slot;
}

}  // namespace quarn

#endif  // QUARN_SLOT_H

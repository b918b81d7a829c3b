// What is owed however a callback ends.
#ifndef TARV_SRC_CALL_BOTH_H
#define TARV_SRC_CALL_BOTH_H

namespace tarv::details {

// Calls `first`, then `second` whether or not `first` threw; what it threw travels on.
template <class First, class Second>
void CallBoth(First&& first, Second&& second) {
  try {
    first();
  } catch (...) {
    second();
    throw;
  }
  second();
}

}  // namespace tarv::details

#endif  // TARV_SRC_CALL_BOTH_H

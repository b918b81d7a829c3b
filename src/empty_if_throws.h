// How failures inside the service become the empty results that a C caller can handle.
#ifndef TARV_SRC_EMPTY_IF_THROWS_H
#define TARV_SRC_EMPTY_IF_THROWS_H

#include <exception>

namespace tarv::details {

// The result of `make`, or an empty one when it throws, as it does when memory runs out.
template <class Make>
auto EmptyIfThrows(Make&& make) -> decltype(make()) {
  try {
    return make();
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace tarv::details

#endif  // TARV_SRC_EMPTY_IF_THROWS_H

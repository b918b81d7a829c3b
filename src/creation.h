// How the service's objects come into being across a C interface.
#ifndef TARV_SRC_CREATION_H
#define TARV_SRC_CREATION_H

#include <exception>

namespace tarv::details {

// What `create` makes, or an empty pointer when memory ran out: a C caller gets a null handle,
// which it can handle, instead of an exception.
template <class Create>
auto CreateOrEmpty(Create&& create) -> decltype(create()) {
  try {
    return create();
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace tarv::details

#endif  // TARV_SRC_CREATION_H

// Objects whose users let go of them inside their own callbacks.
#ifndef VORPC_INTERNAL_HAND_TO_USER_H
#define VORPC_INTERNAL_HAND_TO_USER_H

#include <memory>
#include <utility>

namespace vorpc {

// The object as its user holds it. The user's references are counted apart from those that running
// operations hold: when the user's last one is gone, `abandon` is called with the object, which
// lives on until those operations are done.
template <class Interface, class Object, class Abandon>
std::shared_ptr<Interface> HandToUser(std::shared_ptr<Object> object, Abandon abandon) {
  Object* const handle = object.get();
  return {handle, [object = std::move(object), abandon](Interface* /*handle*/) mutable {
            abandon(*object);
            object.reset();
          }};
}

}  // namespace vorpc

#endif  // VORPC_INTERNAL_HAND_TO_USER_H

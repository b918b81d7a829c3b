// Objects that callers hold by number: ids, handles and the registry that resolves them.
//
// A handle is a pointer type whose value is an object's id. It never points at memory: FromRef
// turns it back into a strong reference, or into nothing once the object is gone. Ids only count
// up, so a handle kept too long can never reach a stranger.
//
//   class Clock : public quarn::Object<Clock, ClockRef*> {
//     struct PrivateTag { explicit PrivateTag() = default; };
//    public:
//     explicit Clock(PrivateTag) : Object(IDispatcher::CreateEmpty()) {}
//     static std::shared_ptr<Clock> Create() { return Object::Create(PrivateTag()); }
//   };
//
// Each type has one registry. Of a type that several libraries use, one library makes it: the
// header says `extern template class TARV_EXPORT quarn::Object<Clock, ClockRef*>;` before the
// class, and one source of that library `template class quarn::Object<Clock, ClockRef*>;`. Without
// these, each library would look into an empty registry of its own.
#ifndef QUARN_OBJECT_H
#define QUARN_OBJECT_H

#include <quarn/dispatcher.h>
#include <quarn/export.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>
#include <type_traits>
#include <unordered_map>
#include <utility>

namespace quarn {

namespace details {

// Draws ids from the one counter of the process, which numbers objects, chunks, subscriptions and
// handlers alike.
class TARV_EXPORT CounterClient {
 public:
  // The next id: 1 for the first caller of the process, rising by 1. Lock-free, any thread.
  static std::uint64_t GenerateId();
};

// The part that objects of all types share: a dispatcher that can be dropped while others use it.
class TARV_EXPORT ObjectImpl : public CounterClient {
 public:
  explicit ObjectImpl(const std::shared_ptr<IDispatcher>& dispatcher) : dispatcher_(dispatcher) {}
  virtual ~ObjectImpl();

  ObjectImpl(const ObjectImpl&) = delete;
  ObjectImpl& operator=(const ObjectImpl&) = delete;

  // Hands `task` and `param` to the dispatcher; nothing once it was dropped. The dispatcher is
  // called with no lock held, so the task may call back into the object. Any thread.
  void Invoke(const std::function<void()>& task, unsigned int param) const;

  // Drops the dispatcher for good. Any thread.
  void ResetDispatcher();

 private:
  mutable std::shared_mutex mutex_;
  std::shared_ptr<IDispatcher> dispatcher_;
};

// The live objects of one type, by the id that their handles carry. Any thread.
template <class T, class Ref>
class ObjectRegistry {
 public:
  void Add(std::uint64_t id, const std::weak_ptr<T>& object) {
    const std::unique_lock lock(mutex_);
    objects_.emplace(id, object);
  }

  void Remove(std::uint64_t id) {
    const std::unique_lock lock(mutex_);
    objects_.erase(id);
  }

  std::shared_ptr<T> Find(Ref ref) const {
    const std::shared_lock lock(mutex_);
    const auto found = objects_.find(reinterpret_cast<std::uint64_t>(ref));
    return found == objects_.end() ? nullptr : found->second.lock();
  }

  void Clear() {
    const std::unique_lock lock(mutex_);
    std::unordered_map<std::uint64_t, std::weak_ptr<T>>().swap(objects_);
  }

 private:
  mutable std::shared_mutex mutex_;
  std::unordered_map<std::uint64_t, std::weak_ptr<T>> objects_;
};

}  // namespace details

// `Ref` is the pointer type of the handles. `T` derives from Object<T, Ref> and takes T::PrivateTag
// as the last argument of its constructor, so that only its own Create can build one.
template <class T, class Ref>
class Object : public details::ObjectImpl, public std::enable_shared_from_this<T> {
  static_assert(std::is_pointer_v<Ref> && sizeof(std::uintptr_t) == sizeof(std::uint64_t),
                "a handle is a pointer type that carries a 64-bit id");

 public:
  explicit Object(const std::shared_ptr<IDispatcher>& dispatcher)
      : ObjectImpl(dispatcher), id_(GenerateId()) {}
  ~Object() override { Unregister(); }

  // The live object with this handle, or an empty pointer. Any thread.
  static std::shared_ptr<T> FromRef(Ref ref) { return GetRegistry().Find(ref); }

  // A number in a pointer's clothes: nobody dereferences it.
  Ref GetRef() const { return reinterpret_cast<Ref>(id_); }  // NOLINT(performance-no-int-to-ptr)
  std::uint64_t GetId() const { return id_; }

 protected:
  // Builds and registers an object. An exception of its constructor or of the allocation passes
  // through, and nothing stays registered.
  template <class... Args>
  static std::shared_ptr<T> Create(Args&&... args) {
    auto object = std::make_shared<T>(std::forward<Args>(args)...);
    GetRegistry().Add(object->GetId(), object);
    return object;
  }

  // Makes the handle resolve to nothing while the object lives on. Any thread.
  void Unregister() { GetRegistry().Remove(id_); }

 private:
  using Registry = details::ObjectRegistry<T, Ref>;

  struct ClearAtExit {
    Registry& registry;
    ~ClearAtExit() { registry.Clear(); }
  };

  static Registry& GetRegistry();

  const std::uint64_t id_;
};

// The registry itself is never destroyed, only emptied at exit: an object that dies later still
// finds it there. Not inline, so that `extern template` leaves it to the library that makes it.
template <class T, class Ref>
typename Object<T, Ref>::Registry& Object<T, Ref>::GetRegistry() {
  alignas(Registry) static unsigned char storage[sizeof(Registry)];
  static Registry* const registry = new (storage) Registry;
  static const ClearAtExit kClearAtExit{*registry};
  return *registry;
}

}  // namespace quarn

#endif  // QUARN_OBJECT_H

// How the service ends what it made of the platform's classes.
#ifndef TARV_SRC_PLATFORM_OBJECT_H
#define TARV_SRC_PLATFORM_OBJECT_H

#include <QObject>
#include <QThread>
#include <memory>
#include <new>

namespace tarv::details {

// The object dies on its own thread, whatever thread lets it go: on that thread's event loop, or as
// the thread ends. So it may be ended from inside its own signals.
//
// Without memory for the event that this takes, it dies at once, if this is its thread: the platform's
// objects may be destroyed from inside their signals, too. On another one it has to stay: nothing it
// does reaches anybody any more.
struct DeleteLater {
  void operator()(QObject* object) const noexcept {
    try {
      object->deleteLater();
    } catch (const std::bad_alloc&) {
      if (object->thread() == QThread::currentThread()) {
        delete object;
      }
    }
  }
};

// The same, and nothing that the object still emits is heard.
struct DisconnectAndDeleteLater {
  void operator()(QObject* object) const noexcept {
    object->disconnect();
    DeleteLater()(object);
  }
};

template <class T>
using PlatformPtr = std::unique_ptr<T, DisconnectAndDeleteLater>;

}  // namespace tarv::details

#endif  // TARV_SRC_PLATFORM_OBJECT_H

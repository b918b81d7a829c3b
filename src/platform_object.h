// How the service ends what it made of the platform's classes.
#ifndef TARV_SRC_PLATFORM_OBJECT_H
#define TARV_SRC_PLATFORM_OBJECT_H

#include <QObject>
#include <memory>

namespace tarv::details {

// The object dies on its own thread, whatever thread lets it go: on that thread's event loop, or as
// the thread ends. So it may be ended from inside its own signals.
struct DeleteLater {
  void operator()(QObject* object) const { object->deleteLater(); }
};

// The same, and nothing that the object still emits is heard.
struct DisconnectAndDeleteLater {
  void operator()(QObject* object) const {
    object->disconnect();
    object->deleteLater();
  }
};

template <class T>
using PlatformPtr = std::unique_ptr<T, DisconnectAndDeleteLater>;

}  // namespace tarv::details

#endif  // TARV_SRC_PLATFORM_OBJECT_H

// What goes on when memory has run out: ends, above all, which must neither throw nor be missed.
#ifndef RUNTIME_MANAGER_HOST_WANT_OF_MEMORY_H
#define RUNTIME_MANAGER_HOST_WANT_OF_MEMORY_H

#include <RuntimeManager/Error.h>
#include <qt/internal/start_timer.h>

#include <QtCore/QString>
#include <new>
#include <utility>

namespace RuntimeManager::host {

// Takes a step that may need memory; false when there was none for it.
template <class Step>
bool Attempt(const Step& step) {
  try {
    step();
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

// What `make` makes, or, when memory runs out for it, the plainer thing.
template <class Make, class T>
T MadeOr(const Make& make, T plainer) {
  try {
    return make();
  } catch (const std::bad_alloc&) {
    return plainer;
  }
}

using qt::details::StartTimer;

// An error that takes no memory itself.
inline Error OutOfMemory(Error::Code code) {
  return {code, QStringLiteral("memory ran out, for the reason, too")};
}

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_WANT_OF_MEMORY_H

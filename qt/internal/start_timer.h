// Timers of Qt's event loop, started by everything that uses it: safely, when memory runs out.
#ifndef QT_INTERNAL_START_TIMER_H
#define QT_INTERNAL_START_TIMER_H

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QObject>
#include <QtCore/QTimer>
#include <chrono>
#include <new>

namespace qt::details {

// Calls `start`, which starts the one timer of `object`, on its thread. QObject::startTimer() alone,
// when memory runs out inside, leaves a timer to the event loop that the object does not know of, and
// that would go on after its end: it is taken back.
template <class Start>
auto WithoutRemains(QObject& object, const Start& start) {
  try {
    return start();
  } catch (const std::bad_alloc&) {
    QAbstractEventDispatcher::instance()->unregisterTimers(&object);
    throw;
  }
}

// QTimer::start(), on the timer's thread. Throws std::bad_alloc, and the timer does not run then.
template <class Time>
void StartTimer(QTimer& timer, Time time) {
  WithoutRemains(timer, [&] { timer.start(time); });
}

// QObject::startTimer(), for an object that has no other timer. Throws std::bad_alloc.
inline int StartTimer(QObject& object, std::chrono::milliseconds time, Qt::TimerType type) {
  return WithoutRemains(object, [&] { return object.startTimer(time, type); });
}

}  // namespace qt::details

#endif  // QT_INTERNAL_START_TIMER_H

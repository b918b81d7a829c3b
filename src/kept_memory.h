// Memory that is kept for large texts, seen to by an event loop.
#ifndef TARV_SRC_KEPT_MEMORY_H
#define TARV_SRC_KEPT_MEMORY_H

#include <QObject>

namespace tarv::details {

// Has the event loop of `context`'s thread give back what quarn::TextRoom keeps once it is idle, or
// when `context` goes; at once, when memory runs out for that. Called for every large text that is
// sent. Any thread that keeps `context` alive during this call.
void GiveBackWhenIdle(QObject* context) noexcept;

}  // namespace tarv::details

#endif  // TARV_SRC_KEPT_MEMORY_H

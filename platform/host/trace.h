// The record of every message, for tools: RUNTIME_MANAGER_TRACE=FILE.
#ifndef RUNTIME_MANAGER_HOST_TRACE_H
#define RUNTIME_MANAGER_HOST_TRACE_H

#include <QtCore/QString>
#include <cstddef>

namespace RuntimeManager::host {

enum class Direction { kSend, kReceive };

// Appends one JSON line to the file: when, which process, which task, which way, and the message,
// whose compact JSON is the `size` bytes at `text`. Does nothing when there is no record. Any
// thread.
void Trace(const QString& task, Direction direction, const char* text, std::size_t size);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_TRACE_H

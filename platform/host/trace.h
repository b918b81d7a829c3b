// The record of every message, for tools: RUNTIME_MANAGER_TRACE=FILE.
#ifndef RUNTIME_MANAGER_HOST_TRACE_H
#define RUNTIME_MANAGER_HOST_TRACE_H

#include <QtCore/QJsonObject>
#include <QtCore/QString>
#include <cstddef>
#include <initializer_list>
#include <string_view>

namespace RuntimeManager::host {

enum class Direction { kSend, kReceive };

// Whether there is a record. Any thread, as all here.
bool IsRecorded();
// Nanoseconds of the machine's run, for Trace().
long long RecordTime();
// Appends one JSON line to the file: when, which process, which task, which way, and the message,
// whose compact JSON is in up to three pieces. The time is now unless it is given. Does nothing when
// there is no record.
void Trace(const QString& task, Direction direction, std::initializer_list<std::string_view> json,
           long long time = 0);
// The same for the lines that end between `from` and `to` in bytes that begin with a line.
void TraceLinesSent(const QString& task, std::string_view bytes, std::size_t from, std::size_t to,
                    long long time);

// Appends a line for something that has happened to the task: "start", "end" or "connection". The
// members of `more` say what about it. The time is now unless it is given. Does nothing when there is no record.
void TraceEvent(const QString& task, const char* event, const QJsonObject& more,
                long long time = 0);

// Appends a line that says which fault struck a message on this way, or the task: `fault` in place of
// the message.
void TraceFault(const QString& task, Direction direction, const QString& fault);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_TRACE_H

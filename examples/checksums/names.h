// The names by which the parts of the example know each other.
#ifndef CHECKSUMS_NAMES_H
#define CHECKSUMS_NAMES_H

#include <cstdint>

namespace checksums {

// Between Dart and the application's plug-in.
//
//   method "hash", a list of paths as bytes   succeeds when every file is done; its errors are the
//                                             codes below
//   method "cancel"                           drops the work
//   event {"file": i, "bytes": n}             n bytes of file i are hashed
//   event {"file": i, "sha256": bytes}        file i is done
//   event {"file": i, "error": text}          file i could not be read
inline constexpr char kMethodChannel[] = "checksums/calls";
inline constexpr char kEventChannel[] = "checksums/events";
inline constexpr char kNotStarted[] = "not-started";
inline constexpr char kTaskLost[] = "task-lost";
inline constexpr char kCancelled[] = "cancelled";
inline constexpr char kBusy[] = "busy";

// Between the application's plug-in and the task's.
//
//   request "hash" {"file": i, "path": bytes}  the hash as bytes; or an error: kCannotRead, with
//                                              the data {"errno": n}, or kDropped
//   notification "progress" from the task      {"file": i, "bytes": n}
//   notification "cancel" to the task          answers all that is open with kDropped
inline constexpr char kTaskName[] = "checksums";
inline constexpr std::int32_t kCannotRead = 1;
inline constexpr std::int32_t kDropped = 2;

}  // namespace checksums

#endif  // CHECKSUMS_NAMES_H

// The names by which the parts of the example know each other.
#ifndef CHECKSUMS_NAMES_H
#define CHECKSUMS_NAMES_H

#include <tarv/calls/method.h>
#include <tarv/calls/value.h>

#include <cstdint>
#include <vector>

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

// Between the application's plug-in and the task's: the path of a file gives its SHA-256, both as
// bytes. A file that cannot be read is the error kCannotRead with the data {"errno": n}.
using Bytes = std::vector<std::uint8_t>;
struct Step {
  std::int64_t bytes = 0;  // hashed so far
};
TARV_VALUE(Step, bytes)

inline constexpr char kTaskName[] = "checksums";
inline constexpr tarv::Method<Bytes(Bytes), Step> kHash{"hash", "the SHA-256 of a file"};
inline constexpr std::int32_t kCannotRead = 1;

}  // namespace checksums

#endif  // CHECKSUMS_NAMES_H

// What the Dart part of the application would do: call the plug-in, show progress, print results.
#ifndef CHECKSUMS_DART_SIDE_H
#define CHECKSUMS_DART_SIDE_H

#include <veltra/host/engine.h>

#include <cstdint>
#include <string>
#include <vector>

#include "file_list.h"
#include "progress.h"

namespace checksums {

enum ExitStatus : int {
  kAllHashed = 0,
  kSomeFilesFailed = 1,
  kBadUsage = 2,
  kTaskFailed = 3,
  kInterrupted = 130,  // as a shell reports a program that SIGINT ended
};

// Lives on the platform thread. Ends the event loop with an ExitStatus when everything is said.
class DartSide {
 public:
  // `engine` must outlive it.
  DartSide(veltra::host::Engine& engine, FileList list);
  DartSide(const DartSide&) = delete;
  DartSide& operator=(const DartSide&) = delete;

  void Start();

  // Has the task drop its work; what was hashed so far is not printed. A second call does not wait
  // for the answer.
  void Interrupt();

 private:
  void OnEvent(const cw::EncodableValue& event);
  void FinishFile(std::size_t file);
  void OnOutcome(const veltra::host::MethodOutcome& outcome);
  void Complain(ExitStatus status, const std::string& line);
  void PrintResults() const;

  veltra::host::Engine& engine_;
  const FileList list_;
  std::vector<std::string> hashes_;  // by file, in hexadecimal; empty until known
  Progress progress_;
  std::size_t finished_ = 0;
  std::uint64_t finished_bytes_ = 0;
  ExitStatus status_ = kAllHashed;
};

}  // namespace checksums

#endif  // CHECKSUMS_DART_SIDE_H

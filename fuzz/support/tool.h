// The tool's results, as a fuzz target reads them back.
#ifndef FUZZ_SUPPORT_TOOL_H
#define FUZZ_SUPPORT_TOOL_H

#include <unistd.h>

#include <optional>
#include <string>

#include "memory_file.h"
#include "output.h"
#include "support/capture.h"

namespace tarv::fuzz {

// One for the process, as in the program.
class Results {
 public:
  static Results& Get() {
    static Results results;
    return results;
  }

  tarvctl::Output& GetOutput() { return *output_; }
  // What was printed since the last call.
  std::string Take() {
    output_->Flush();
    return file_.Take();
  }

 private:
  // The output writes to where standard output leads when it is made.
  Results() {
    const test::Redirection redirection(STDOUT_FILENO, file_.Descriptor());
    output_.emplace();
  }

  MemoryFile file_;
  std::optional<tarvctl::Output> output_;
};

}  // namespace tarv::fuzz

#endif  // FUZZ_SUPPORT_TOOL_H

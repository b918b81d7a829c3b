// Runs a whole program and looks at what it says and how it ends.
#ifndef KIT_PROGRAM_H
#define KIT_PROGRAM_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace tarv::test {

// A child process whose output is collected. Killed, if it still runs, with the object.
class Program {
 public:
  struct Options {
    std::string folder;           // where it runs; empty: here
    bool error_terminal = false;  // standard error is a terminal
    uid_t user = 0;               // whom it runs as, if this process is root; 0: nobody else
    std::string output_file;      // where standard output goes instead of into GetOutput()
  };

  explicit Program(const std::vector<std::string>& command) : Program(command, Options()) {}
  Program(const std::vector<std::string>& command, const Options& options);
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Waits until it ends and returns its exit status, or 128 plus the number of the signal that
  // ended it; -1 when it outlasts all patience.
  int Wait();

  // Waits until `text` appears on standard error. False when the program ends before that.
  bool WaitForError(const std::string& text);

  void Signal(int number) const;

  // Its children's ids.
  std::vector<int> Children() const;

  const std::string& GetOutput() const { return output_; }
  const std::string& GetError() const { return error_; }

 private:
  bool ReadUntil(const std::function<bool()>& condition);
  void ReadSome(std::chrono::milliseconds limit);

  pid_t process_ = -1;
  int output_pipe_ = -1;
  int error_pipe_ = -1;
  std::string output_;
  std::string error_;
};

}  // namespace tarv::test

#endif  // KIT_PROGRAM_H

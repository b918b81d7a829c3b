#include "program.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <system_error>

namespace tarv::test {
namespace {

constexpr std::chrono::seconds kPatience{120};

struct Ends {
  int mine = -1;
  int its = -1;
};

[[noreturn]] void Throw(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

Ends MakePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    Throw("pipe");
  }
  return {ends[0], ends[1]};
}

Ends MakeTerminal() {
  Ends ends;
  if (openpty(&ends.mine, &ends.its, nullptr, nullptr, nullptr) != 0) {
    Throw("openpty");
  }
  fcntl(ends.mine, F_SETFD, FD_CLOEXEC);
  fcntl(ends.its, F_SETFD, FD_CLOEXEC);
  return ends;
}

Ends OpenFile(const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  return file < 0 ? Throw("open"), Ends() : Ends{-1, file};
}

std::vector<char*> Arguments(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  return arguments;
}

[[noreturn]] void Become(const std::vector<std::string>& command, const Program::Options& options,
                         int output, int error) {
  dup2(output, STDOUT_FILENO);
  dup2(error, STDERR_FILENO);
  const bool ready = (options.folder.empty() || chdir(options.folder.c_str()) == 0) &&
                     (options.user == 0 || getuid() != 0 || setuid(options.user) == 0);
  if (ready) {
    execv(command[0].c_str(), Arguments(command).data());
  }
  _exit(127);
}

// False at the end of the stream. A terminal whose last user has gone answers with EIO.
bool Append(int descriptor, std::string& text) {
  std::array<char, 65536> block{};
  const ssize_t got = read(descriptor, block.data(), block.size());
  if (got > 0) {
    text.append(block.data(), static_cast<std::size_t>(got));
  }
  return got > 0 || (got < 0 && errno == EINTR);
}

void Close(int& descriptor) {
  if (descriptor >= 0) {
    close(descriptor);
    descriptor = -1;
  }
}

}  // namespace

Program::Program(const std::vector<std::string>& command, const Options& options) {
  Ends output = options.output_file.empty() ? MakePipe() : OpenFile(options.output_file);
  Ends error = options.error_terminal ? MakeTerminal() : MakePipe();
  process_ = fork();
  if (process_ == 0) {
    Become(command, options, output.its, error.its);
  }
  Close(output.its);
  Close(error.its);
  output_pipe_ = output.mine;
  error_pipe_ = error.mine;
}

Program::~Program() {
  if (process_ > 0) {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  Close(output_pipe_);
  Close(error_pipe_);
}

void Program::ReadSome(std::chrono::milliseconds limit) {
  std::array<pollfd, 2> ready{{{output_pipe_, POLLIN, 0}, {error_pipe_, POLLIN, 0}}};
  poll(ready.data(), ready.size(), static_cast<int>(limit.count()));
  if (ready[0].revents != 0 && !Append(output_pipe_, output_)) {
    Close(output_pipe_);
  }
  if (ready[1].revents != 0 && !Append(error_pipe_, error_)) {
    Close(error_pipe_);
  }
}

bool Program::ReadUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if ((output_pipe_ < 0 && error_pipe_ < 0) || std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    ReadSome(std::chrono::milliseconds(100));
  }
  return true;
}

bool Program::WaitForError(const std::string& text) {
  return ReadUntil([this, &text] { return error_.find(text) != std::string::npos; });
}

int Program::Wait() {
  int status = 0;
  // Reads on after the end: what was written last may still be in the pipes.
  const bool ended = ReadUntil(
      [this, &status] { return process_ < 0 || waitpid(process_, &status, WNOHANG) == process_; });
  if (!ended && (output_pipe_ >= 0 || error_pipe_ >= 0)) {
    return -1;
  }
  if (!ended) {
    waitpid(process_, &status, 0);
  }
  process_ = -1;
  ReadUntil([] { return false; });
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void Program::Signal(int number) const { kill(process_, number); }

std::vector<int> Program::Children() const {
  const std::string process = std::to_string(process_);
  std::ifstream list("/proc/" + process + "/task/" + process + "/children");
  std::vector<int> children;
  for (int child = 0; list >> child;) {
    children.push_back(child);
  }
  return children;
}

}  // namespace tarv::test

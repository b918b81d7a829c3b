#include "spawn.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "activation.h"

namespace RuntimeManager::host {
namespace {

// In the child: 0 to 2 are the standard ones, 3 the socket, 4 tells that exec failed.
constexpr int kStatusDescriptor = kActivationSocket + 1;
constexpr int kFirstUnused = kStatusDescriptor + 1;
constexpr int kExecFailed = 127;  // what a shell's child exits with
constexpr char kPidVariable[] = "LISTEN_PID=";
constexpr std::size_t kPidDigits = 20;

// Everything that the child needs, made before the fork: between fork and exec nothing may be
// allocated, because another thread may have held a lock of the allocator.
struct ChildPlan {
  const char* program = nullptr;
  char* const* arguments = nullptr;
  char* const* environment = nullptr;
  char* pid_digits = nullptr;
  int null_device = -1;
  int listen_socket = -1;
  int stderr_pipe = -1;
  int status = -1;
  pid_t starter = -1;
  bool dies_with_starter = true;
};

// ---- The child. Only async-signal-safe calls from here to RunChild(). ----

[[noreturn]] void FailChild(int status) {
  const int error_number = errno;
  // Nothing is left to do about a failed write: the starter sees the process end.
  static_cast<void>(::write(status, &error_number, sizeof(error_number)) == 0);
  ::_exit(kExecFailed);
}

void ResetSignals() {
  struct sigaction by_default {};
  by_default.sa_handler = SIG_DFL;
  // Those that cannot be changed refuse, and need no change.
  for (int signal = 1; signal < NSIG; ++signal) {
    ::sigaction(signal, &by_default, nullptr);
  }
}

void UnblockSignals() {
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

void WriteNumber(char* out, unsigned long number) {
  std::array<char, kPidDigits> digits{};
  std::size_t count = 0;
  do {
    digits[count++] = static_cast<char>('0' + number % 10);
    number /= 10;
  } while (number > 0);
  while (count > 0) {
    *out++ = digits[--count];
  }
  *out = '\0';
}

// One descriptor from its name in /proc/self/fd; -1 for "." and "..".
int ReadNumber(const char* text) {
  int number = 0;
  if (*text == '\0') {
    return -1;
  }
  for (; *text != '\0'; ++text) {
    if (*text < '0' || *text > '9') {
      return -1;
    }
    number = number * 10 + (*text - '0');
  }
  return number;
}

// Closes what one listing of /proc/self/fd shows; returns how many there were.
int CloseListed(int folder) {
  struct Entry {
    std::uint64_t inode;
    std::int64_t offset;
    std::uint16_t size;
    std::uint8_t type;
    char name[1];
  };
  alignas(Entry) std::array<char, 2048> buffer{};
  int closed = 0;
  ::lseek(folder, 0, SEEK_SET);
  for (;;) {
    const long size = ::syscall(SYS_getdents64, folder, buffer.data(), buffer.size());
    if (size <= 0) {
      return closed;
    }
    for (long at = 0; at < size;) {
      const auto* entry = reinterpret_cast<const Entry*>(buffer.data() + at);
      const int descriptor = ReadNumber(buffer.data() + at + offsetof(Entry, name));
      if (descriptor >= kFirstUnused && descriptor != folder && ::close(descriptor) == 0) {
        ++closed;
      }
      at += entry->size;
    }
  }
}

void CloseByLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    limit.rlim_cur = 1024;
  }
  for (rlim_t fd = kFirstUnused; fd < limit.rlim_cur; ++fd) {
    ::close(static_cast<int>(fd));
  }
}

void CloseUnused() {
#ifdef SYS_close_range
  if (::syscall(SYS_close_range, kFirstUnused, ~0U, 0U) == 0) {
    return;
  }
#endif
  const int folder = ::open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) {
    CloseByLimit();
    return;
  }
  while (CloseListed(folder) > 0) {
    continue;
  }
  ::close(folder);
}

void ArrangeDescriptors(const ChildPlan& plan) {
  bool arranged = ::dup2(plan.null_device, STDIN_FILENO) >= 0;
  // A closed standard stream would be taken by the first file that the program opens.
  for (const int standard : {STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(standard, F_GETFD) < 0) {
      arranged &= ::dup2(plan.null_device, standard) >= 0;
    }
  }
  if (plan.stderr_pipe >= 0) {
    arranged &= ::dup2(plan.stderr_pipe, STDERR_FILENO) >= 0;
  }
  if (plan.listen_socket >= 0) {
    arranged &= ::dup2(plan.listen_socket, kActivationSocket) >= 0;
  } else {
    ::close(kActivationSocket);
  }
  arranged &= ::dup3(plan.status, kStatusDescriptor, O_CLOEXEC) >= 0;
  if (!arranged) {
    FailChild(plan.status);
  }
}

[[noreturn]] void RunChild(const ChildPlan& plan) {
  ResetSignals();
  if (plan.dies_with_starter) {
    if (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0) {
      FailChild(plan.status);
    }
    // A starter that died before the call sends no signal any more.
    if (::getppid() != plan.starter) {
      ::_exit(kExecFailed);
    }
  }
  ArrangeDescriptors(plan);
  CloseUnused();
  WriteNumber(plan.pid_digits, static_cast<unsigned long>(::getpid()));
  UnblockSignals();
  ::execve(plan.program, plan.arguments, plan.environment);
  FailChild(kStatusDescriptor);
}

// ---- The starter. ----

// The descriptors of the child are put in place one after the other, so none of their sources may
// lie where another one goes.
UniqueFd Raise(UniqueFd fd) {
  if (!fd.IsValid() || fd.Get() >= kFirstUnused) {
    return fd;
  }
  return UniqueFd(::fcntl(fd.Get(), F_DUPFD_CLOEXEC, kFirstUnused));
}

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

// The read end does not block.
int OpenPipe(Pipe* pipe) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    return errno;
  }
  pipe->read.Reset(ends[0]);
  pipe->write.Reset(ends[1]);
  if (::fcntl(pipe->read.Get(), F_SETFL, O_NONBLOCK) != 0) {
    return errno;
  }
  pipe->read = Raise(std::move(pipe->read));
  pipe->write = Raise(std::move(pipe->write));
  return pipe->read.IsValid() && pipe->write.IsValid() ? 0 : errno;
}

// The starter's variables without those of a socket activation of its own.
std::vector<QByteArray> Environment(const SpawnRequest& request) {
  std::vector<QByteArray> variables;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    const QByteArray text(*variable);
    const QByteArray name = text.left(text.indexOf('='));
    if (name != "LISTEN_PID" && name != "LISTEN_FDS" && name != "LISTEN_FDNAMES") {
      variables.push_back(text);
    }
  }
  if (request.listen_socket < 0) {
    return variables;
  }
  variables.emplace_back("LISTEN_FDS=1");
  variables.push_back("LISTEN_FDNAMES=" + request.task_name);
  // The number follows after the fork.
  variables.push_back(kPidVariable + QByteArray(int{kPidDigits}, '\0'));
  return variables;
}

std::vector<char*> Pointers(std::vector<QByteArray>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (QByteArray& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// Descriptors of the child's, before they are in their places.
struct ChildFiles {
  UniqueFd null_device;
  UniqueFd listen_socket;
  Pipe status;
  Pipe errors;
};

int OpenFiles(const SpawnRequest& request, ChildFiles* files) {
  files->null_device = Raise(UniqueFd(::open("/dev/null", O_RDWR | O_CLOEXEC)));
  if (!files->null_device.IsValid()) {
    return errno;
  }
  if (request.listen_socket >= 0) {
    files->listen_socket.Reset(::fcntl(request.listen_socket, F_DUPFD_CLOEXEC, kFirstUnused));
    if (!files->listen_socket.IsValid()) {
      return errno;
    }
  }
  if (const int error_number = OpenPipe(&files->status)) {
    return error_number;
  }
  return request.capture_stderr ? OpenPipe(&files->errors) : 0;
}

// The child's arguments and variables, and the arrays of pointers to them that exec takes.
class ChildTexts {
 public:
  explicit ChildTexts(const SpawnRequest& request)
      : arguments_(request.arguments.begin(), request.arguments.end()),
        variables_(Environment(request)),
        has_socket_(request.listen_socket >= 0) {
    arguments_.insert(arguments_.begin(), request.program);
    argument_pointers_ = Pointers(arguments_);
    variable_pointers_ = Pointers(variables_);
  }
  ChildTexts(const ChildTexts&) = delete;
  ChildTexts& operator=(const ChildTexts&) = delete;

  char* const* Arguments() const { return argument_pointers_.data(); }
  char* const* Variables() const { return variable_pointers_.data(); }
  // Where the child writes its process id.
  char* PidDigits() {
    return has_socket_ ? variable_pointers_[variables_.size() - 1] + sizeof(kPidVariable) - 1
                       : unused_digits_.data();
  }

 private:
  std::vector<QByteArray> arguments_;
  std::vector<QByteArray> variables_;
  std::vector<char*> argument_pointers_;
  std::vector<char*> variable_pointers_;
  const bool has_socket_;
  std::array<char, kPidDigits> unused_digits_{};
};

// Forks with every signal blocked, so that no handler of the application runs in the child.
pid_t ForkChild(const ChildPlan& plan, int* error_number) {
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t pid = ::fork();
  if (pid == 0) {
    RunChild(plan);
  }
  *error_number = pid < 0 ? errno : 0;
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return pid;
}

}  // namespace

int Spawn(const SpawnRequest& request, Spawned* spawned) {
  ChildFiles files;
  int error_number = OpenFiles(request, &files);
  if (error_number != 0) {
    return error_number;
  }
  ChildTexts texts(request);
  ChildPlan plan;
  plan.program = request.program.constData();
  plan.arguments = texts.Arguments();
  plan.environment = texts.Variables();
  plan.pid_digits = texts.PidDigits();
  plan.null_device = files.null_device.Get();
  plan.listen_socket = files.listen_socket.Get();
  plan.stderr_pipe = files.errors.write.Get();
  plan.status = files.status.write.Get();
  plan.starter = ::getpid();
  plan.dies_with_starter = request.dies_with_starter;

  spawned->pid = ForkChild(plan, &error_number);
  spawned->exec_status = std::move(files.status.read);
  spawned->stderr_pipe = std::move(files.errors.read);
  return error_number;
}

}  // namespace RuntimeManager::host

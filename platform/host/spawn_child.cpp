// Only async-signal-safe calls in this file, and no writing but to the stack and the plan: the memory
// is the starter's.
#include "spawn_child.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>

namespace RuntimeManager::host {
namespace {

constexpr int kExecFailed = 127;  // what a shell's child exits with

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

// An entry of a folder as the kernel lists it.
struct Entry {
  std::uint64_t inode;
  std::int64_t offset;
  std::uint16_t size;
  std::uint8_t type;
  char name[1];
};

// Closes what one piece of the listing of `folder`, /proc/self/fd, shows; returns how many there were.
int CloseEntries(int folder, const char* entries, long size) {
  int closed = 0;
  for (long at = 0; at < size;) {
    const auto* entry = reinterpret_cast<const Entry*>(entries + at);
    const int descriptor = ReadNumber(entries + at + offsetof(Entry, name));
    if (descriptor >= kFirstUnused && descriptor != folder && ::close(descriptor) == 0) {
      ++closed;
    }
    at += entry->size;
  }
  return closed;
}

// The same for one listing from its beginning to its end.
int CloseListed(int folder) {
  alignas(Entry) std::array<char, 2048> buffer{};
  int closed = 0;
  long size = 0;
  ::lseek(folder, 0, SEEK_SET);
  while ((size = ::syscall(SYS_getdents64, folder, buffer.data(), buffer.size())) > 0) {
    closed += CloseEntries(folder, buffer.data(), size);
  }
  return closed;
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
  int closed = 0;
  do {
    closed = CloseListed(folder);
  } while (closed > 0);
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

}  // namespace

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

}  // namespace RuntimeManager::host

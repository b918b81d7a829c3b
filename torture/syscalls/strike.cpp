#include "strike.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace failing {
namespace {

constexpr std::array<const char*, kCalls> kNames = {"socket",
                                                    "socketpair",
                                                    "bind",
                                                    "listen",
                                                    "accept4",
                                                    "connect",
                                                    "getsockopt",
                                                    "vfork",
                                                    "execve",
                                                    "pidfd_open",
                                                    "pidfd_send_signal",
                                                    "waitid",
                                                    "waitpid",
                                                    "pipe2",
                                                    "dup2",
                                                    "dup3",
                                                    "fcntl",
                                                    "read",
                                                    "recv",
                                                    "write",
                                                    "writev",
                                                    "send",
                                                    "sendmsg",
                                                    "poll",
                                                    "epoll_create1",
                                                    "epoll_ctl",
                                                    "epoll_wait",
                                                    "ppoll",
                                                    "open",
                                                    "openat",
                                                    "unlink",
                                                    "unlinkat",
                                                    "renameat",
                                                    "mkdirat",
                                                    "fchmod",
                                                    "fchmodat"};

std::array<std::atomic<int>, kCalls> counts;
int failing_call = -1;
int error_number = 0;
bool falls_short = false;
int nth = 0;
bool lasts = false;
bool of_qt = false;

const char* Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

int ErrorNumber(const char* name) {
  constexpr std::pair<const char*, int> kErrors[] = {
      {"EMFILE", EMFILE}, {"ENFILE", ENFILE},  {"ENOMEM", ENOMEM}, {"ENOSPC", ENOSPC},
      {"EIO", EIO},       {"EACCES", EACCES},  {"EINTR", EINTR},   {"EAGAIN", EAGAIN},
      {"EPIPE", EPIPE},   {"ENOBUFS", ENOBUFS}};
  for (const auto& [text, number] : kErrors) {
    if (std::strcmp(text, name) == 0) {
      return number;
    }
  }
  return EIO;
}

__attribute__((constructor)) void Begin() {
  const char* const program = Variable("FAIL_IN");
  if (*program != '\0' && std::strcmp(program, program_invocation_short_name) != 0) {
    return;
  }
  for (int call = 0; call < kCalls; ++call) {
    if (std::strcmp(kNames[static_cast<std::size_t>(call)], Variable("FAIL_CALL")) == 0) {
      failing_call = call;
    }
  }
  falls_short = std::strcmp(Variable("FAIL_ERROR"), "short") == 0;
  error_number = ErrorNumber(Variable("FAIL_ERROR"));
  nth = std::atoi(Variable("FAIL_AT"));
  lasts = std::strcmp(Variable("FAIL_LASTS"), "1") == 0;
  of_qt = std::strcmp(Variable("FAIL_WHOSE"), "qt") == 0;
}

// Whether the code at this address belongs to those whose calls are counted.
bool IsCounted(const void* caller) {
  Dl_info info{};
  if (::dladdr(caller, &info) == 0) {
    return false;
  }
  const auto lies_in = [&info](const char* name) {
    return std::strstr(info.dli_fname, name) != nullptr;
  };
  return of_qt ? lies_in("/libQt5Core") || lies_in("/libglib")
               : lies_in("/libtarv") || lies_in("/libruntimemanager") || lies_in("/libveltra_host");
}

// Whether no other process was struck before.
bool IsFirst() {
  const char* const path = Variable("FAIL_ONCE");
  if (*path == '\0') {
    return true;
  }
  const int before = errno;
  const int file =
      Real<int(const char*, int, ...)>("open")(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  const bool is_first = file >= 0;
  if (is_first) {
    Real<int(int)>("close")(file);
  }
  errno = before;
  return is_first;
}

// Whether what causes the failures has gone.
bool IsOver() {
  const char* const path = Variable("FAIL_UNTIL");
  const int before = errno;
  const bool is_over = *path != '\0' && ::access(path, F_OK) == 0;
  errno = before;
  return is_over;
}

__attribute__((destructor)) void End() {
  const char* const path = Variable("FAIL_LOG");
  const int log = *path == '\0' ? -1
                                : Real<int(const char*, int, ...)>("open")(
                                      path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (log < 0) {
    return;
  }
  char line[1500];
  int size = std::snprintf(line, sizeof(line), "%s", program_invocation_short_name);
  for (std::size_t call = 0; call < kCalls; ++call) {
    size += std::snprintf(line + size, sizeof(line) - static_cast<std::size_t>(size), " %s=%d",
                          kNames[call], counts[call].load());
  }
  line[size++] = '\n';
  Real<ssize_t(int, const void*, size_t)>("write")(log, line, static_cast<std::size_t>(size));
  Real<int(int)>("close")(log);
}

}  // namespace

void* FindReal(const char* name) {
  std::array<char, 64> checked{};
  std::snprintf(checked.data(), checked.size(), "__interceptor_%s", name);
  void* const found = ::dlsym(RTLD_DEFAULT, checked.data());
  return found != nullptr ? found : ::dlsym(RTLD_NEXT, name);
}

bool Strikes(Call call, const void* caller) {
  const int before = errno;
  const int number = IsCounted(caller) ? ++counts[call] : 0;
  errno = before;
  return call == failing_call && number > 0 && !IsOver() &&
         ((number == nth && (IsFirst() || lasts)) || (lasts && number > nth));
}

bool FallsShort() { return falls_short; }

void SetError() { errno = error_number; }

}  // namespace failing

// A library to be preloaded, in which a chosen system call fails, or falls short.
//
//   FAIL_CALL=accept4    the function that is to fail; "" to count only
//   FAIL_ERROR=EMFILE    as what: an error's number, or "short" for half of what read and write move
//   FAIL_AT=3            at which call, counted from 1
//   FAIL_LASTS=1         all later ones fail, too
//   FAIL_IN=name         in the program of this name alone; empty: in every one
//   FAIL_WHOSE=qt        those that Qt makes; else those of this project's libraries
//   FAIL_LOG=FILE        each process appends how often it called what, and what failed
//
// What the C library calls inside itself does not come by here; nor do calls by number, of which
// only those for processes and io by message count.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

enum Call {
  kSocket,
  kBind,
  kListen,
  kAccept4,
  kConnect,
  kFork,
  kExecve,
  kPipe2,
  kRead,
  kWrite,
  kSend,
  kSendmsg,
  kRecv,
  kPoll,
  kPpoll,
  kEpollCreate1,
  kEpollCtl,
  kEpollWait,
  kWaitid,
  kUnlink,
  kUnlinkat,
  kOpen,
  kOpenat,
  kRename,
  kMkdir,
  kMkdirat,
  kFcntl,
  kCalls
};
constexpr std::array<const char*, kCalls> kNames = {
    "socket", "bind",          "listen",    "accept4",    "connect", "fork",   "execve",
    "pipe2",  "read",          "write",     "send",       "sendmsg", "recv",   "poll",
    "ppoll",  "epoll_create1", "epoll_ctl", "epoll_wait", "waitid",  "unlink", "unlinkat",
    "open",   "openat",        "rename",    "mkdir",      "mkdirat", "fcntl"};

std::array<std::atomic<int>, kCalls> counts;
std::atomic<int> struck{0};
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

template <class Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
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
  return of_qt ? lies_in("/libQt5Core")
               : lies_in("/libtarv") || lies_in("/libruntimemanager") || lies_in("/libveltra_host");
}

// Whether this call is to fail or to fall short.
bool Strikes(Call call, const void* caller) {
  const int before = errno;
  const int number = IsCounted(caller) ? ++counts[call] : 0;
  errno = before;
  const bool strikes =
      call == failing_call && number > 0 && (number == nth || (lasts && number > nth));
  struck += strikes ? 1 : 0;
  return strikes;
}

bool Fails(Call call, const void* caller) {
  if (!Strikes(call, caller) || falls_short) {
    return false;
  }
  errno = error_number;
  return true;
}

std::size_t Cut(std::size_t size) { return falls_short && size > 1 ? size / 2 : size; }

__attribute__((destructor)) void End() {
  const char* const path = Variable("FAIL_LOG");
  const int log = *path == '\0' ? -1
                                : Real<int(const char*, int, ...)>("open")(
                                      path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (log < 0) {
    return;
  }
  char line[1500];
  int size = std::snprintf(line, sizeof(line), "%s struck=%d", program_invocation_short_name,
                           struck.load());
  for (std::size_t call = 0; call < kCalls; ++call) {
    size += std::snprintf(line + size, sizeof(line) - static_cast<std::size_t>(size), " %s=%d",
                          kNames[call], counts[call].load());
  }
  line[size++] = '\n';
  Real<ssize_t(int, const void*, size_t)>("write")(log, line, static_cast<std::size_t>(size));
  Real<int(int)>("close")(log);
}

}  // namespace

#define CALLER __builtin_return_address(0)
// A function that fails as a whole, or does what it always does.
#define FAILING(result, name, call, parameters, ...)              \
  __attribute__((visibility("default"))) result name parameters { \
    static const auto real = Real<result parameters>(#name);      \
    if (Fails(call, CALLER)) {                                    \
      return -1;                                                  \
    }                                                             \
    return real(__VA_ARGS__);                                     \
  }

extern "C" {
FAILING(int, socket, kSocket, (int domain, int type, int protocol), domain, type, protocol)
FAILING(int, bind, kBind, (int fd, const sockaddr* address, socklen_t size), fd, address, size)
FAILING(int, listen, kListen, (int fd, int backlog), fd, backlog)
FAILING(int, accept4, kAccept4, (int fd, sockaddr* address, socklen_t* size, int flags), fd,
        address, size, flags)
FAILING(int, connect, kConnect, (int fd, const sockaddr* address, socklen_t size), fd, address,
        size)
FAILING(pid_t, fork, kFork, (), )
FAILING(int, execve, kExecve, (const char* path, char* const* arguments, char* const* variables),
        path, arguments, variables)
FAILING(int, pipe2, kPipe2, (int* ends, int flags), ends, flags)
FAILING(int, poll, kPoll, (pollfd * fds, nfds_t count, int timeout), fds, count, timeout)
FAILING(int, ppoll, kPpoll,
        (pollfd * fds, nfds_t count, const timespec* timeout, const sigset_t* mask), fds, count,
        timeout, mask)
FAILING(int, epoll_create1, kEpollCreate1, (int flags), flags)
FAILING(int, epoll_ctl, kEpollCtl, (int epoll, int operation, int fd, epoll_event* event), epoll,
        operation, fd, event)
FAILING(int, epoll_wait, kEpollWait, (int epoll, epoll_event* events, int count, int timeout),
        epoll, events, count, timeout)
FAILING(int, waitid, kWaitid, (idtype_t type, id_t id, siginfo_t* info, int options), type, id,
        info, options)
FAILING(int, unlink, kUnlink, (const char* path), path)
FAILING(int, unlinkat, kUnlinkat, (int folder, const char* path, int flags), folder, path, flags)
FAILING(int, rename, kRename, (const char* from, const char* to), from, to)
FAILING(int, mkdir, kMkdir, (const char* path, mode_t mode), path, mode)
FAILING(int, mkdirat, kMkdirat, (int folder, const char* path, mode_t mode), folder, path, mode)

__attribute__((visibility("default"))) ssize_t read(int fd, void* data, size_t size) {
  static const auto real = Real<ssize_t(int, void*, size_t)>("read");
  const bool strikes = Strikes(kRead, CALLER);
  if (strikes && !falls_short) {
    errno = error_number;
    return -1;
  }
  return real(fd, data, strikes ? Cut(size) : size);
}

__attribute__((visibility("default"))) ssize_t write(int fd, const void* data, size_t size) {
  static const auto real = Real<ssize_t(int, const void*, size_t)>("write");
  const bool strikes = Strikes(kWrite, CALLER);
  if (strikes && !falls_short) {
    errno = error_number;
    return -1;
  }
  return real(fd, data, strikes ? Cut(size) : size);
}

__attribute__((visibility("default"))) ssize_t recv(int fd, void* data, size_t size, int flags) {
  static const auto real = Real<ssize_t(int, void*, size_t, int)>("recv");
  const bool strikes = Strikes(kRecv, CALLER);
  if (strikes && !falls_short) {
    errno = error_number;
    return -1;
  }
  // A short read is no news unless it is very short.
  return real(fd, data, strikes ? 7 : size, flags);
}

__attribute__((visibility("default"))) ssize_t send(int fd, const void* data, size_t size,
                                                    int flags) {
  static const auto real = Real<ssize_t(int, const void*, size_t, int)>("send");
  const bool strikes = Strikes(kSend, CALLER);
  if (strikes && !falls_short) {
    errno = error_number;
    return -1;
  }
  return real(fd, data, strikes ? Cut(size) : size, flags);
}

__attribute__((visibility("default"))) ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  static const auto real = Real<ssize_t(int, const msghdr*, int)>("sendmsg");
  if (!Strikes(kSendmsg, CALLER)) {
    return real(fd, message, flags);
  }
  if (!falls_short) {
    errno = error_number;
    return -1;
  }
  iovec first = message->msg_iov[0];
  first.iov_len = Cut(first.iov_len);
  msghdr cut = *message;
  cut.msg_iov = &first;
  cut.msg_iovlen = 1;
  return real(fd, &cut, flags);
}

__attribute__((visibility("default"))) int open(const char* path, int flags, ...) {
  static const auto real = Real<int(const char*, int, ...)>("open");
  std::va_list more;
  va_start(more, flags);
  const int mode = va_arg(more, int);
  va_end(more);
  return Fails(kOpen, CALLER) ? -1 : real(path, flags, mode);
}

__attribute__((visibility("default"))) int open64(const char* path, int flags, ...) {
  static const auto real = Real<int(const char*, int, ...)>("open64");
  std::va_list more;
  va_start(more, flags);
  const int mode = va_arg(more, int);
  va_end(more);
  return Fails(kOpen, CALLER) ? -1 : real(path, flags, mode);
}

__attribute__((visibility("default"))) int openat(int folder, const char* path, int flags, ...) {
  static const auto real = Real<int(int, const char*, int, ...)>("openat");
  std::va_list more;
  va_start(more, flags);
  const int mode = va_arg(more, int);
  va_end(more);
  return Fails(kOpenat, CALLER) ? -1 : real(folder, path, flags, mode);
}

__attribute__((visibility("default"))) int fcntl(int fd, int command, ...) {
  static const auto real = Real<int(int, int, ...)>("fcntl");
  std::va_list more;
  va_start(more, command);
  void* const argument = va_arg(more, void*);
  va_end(more);
  return Fails(kFcntl, CALLER) ? -1 : real(fd, command, argument);
}
}

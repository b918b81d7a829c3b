// A library to be preloaded, in which a chosen system call fails, or falls short.
//
//   FAIL_CALL=accept4    the function that is to fail; "" to count only
//   FAIL_ERROR=EMFILE    as what: an error's name, or "short" for half of what read and write move
//   FAIL_AT=3            at which call, counted from 1
//   FAIL_LASTS=1         all later ones fail, too, and those of every process
//   FAIL_ONCE=FILE       else the one that makes this file fails, and no other process's; it tells
//                        that a call has failed
//   FAIL_UNTIL=FILE      as long as there is no such file
//   FAIL_IN=name         in the program of this name alone; empty: in every one
//   FAIL_WHOSE=qt        those that Qt and its event loop make; else those of this project's libraries
//   FAIL_LOG=FILE        each process appends how often it called what
//
// What the C library calls inside itself does not come by here; of the calls by number only those do
// that open a process and signal it. A child of vfork has its starter's memory: what it calls before it
// runs its program is counted with its starter's calls.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>

#include "strike.h"

namespace {

using namespace failing;  // NOLINT(google-build-using-namespace)

bool Fails(Call call, const void* caller) {
  if (!Strikes(call, caller) || FallsShort()) {
    return false;
  }
  SetError();
  return true;
}

std::size_t Cut(std::size_t size) { return size > 1 ? size / 2 : size; }

// Calls `real` with the size, or with what is left of it when this call falls short.
template <class RealCall>
ssize_t MoveBytes(Call call, const void* caller, std::size_t size, std::size_t cut,
                  const RealCall& real) {
  const bool strikes = Strikes(call, caller);
  if (strikes && !FallsShort()) {
    SetError();
    return -1;
  }
  return real(strikes ? cut : size);
}

// The same for what is gathered from many places: half of the first one goes.
template <class RealCall>
ssize_t MoveParts(Call call, const void* caller, const iovec* parts, std::size_t count,
                  const RealCall& real) {
  const bool strikes = Strikes(call, caller);
  if (strikes && !FallsShort()) {
    SetError();
    return -1;
  }
  if (!strikes || count == 0) {
    return real(parts, count);
  }
  const iovec first{parts[0].iov_base, Cut(parts[0].iov_len)};
  return real(&first, 1);
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
FAILING(int, socketpair, kSocketpair, (int domain, int type, int protocol, int* ends), domain, type,
        protocol, ends)
FAILING(int, bind, kBind, (int fd, const sockaddr* address, socklen_t size), fd, address, size)
FAILING(int, listen, kListen, (int fd, int backlog), fd, backlog)
FAILING(int, accept4, kAccept4, (int fd, sockaddr* address, socklen_t* size, int flags), fd,
        address, size, flags)
FAILING(int, connect, kConnect, (int fd, const sockaddr* address, socklen_t size), fd, address,
        size)
FAILING(int, getsockopt, kGetsockopt, (int fd, int level, int name, void* value, socklen_t* size),
        fd, level, name, value, size)
FAILING(int, execve, kExecve, (const char* path, char* const* arguments, char* const* variables),
        path, arguments, variables)
FAILING(int, waitid, kWaitid, (idtype_t type, id_t id, siginfo_t* info, int options), type, id,
        info, options)
FAILING(pid_t, waitpid, kWaitpid, (pid_t pid, int* status, int options), pid, status, options)
FAILING(int, pipe2, kPipe2, (int* ends, int flags), ends, flags)
FAILING(int, dup2, kDup2, (int from, int to), from, to)
FAILING(int, dup3, kDup3, (int from, int to, int flags), from, to, flags)
FAILING(int, poll, kPoll, (pollfd * fds, nfds_t count, int timeout), fds, count, timeout)
FAILING(int, ppoll, kPpoll,
        (pollfd * fds, nfds_t count, const timespec* timeout, const sigset_t* mask), fds, count,
        timeout, mask)
FAILING(int, epoll_create1, kEpollCreate1, (int flags), flags)
FAILING(int, epoll_ctl, kEpollCtl, (int epoll, int operation, int fd, epoll_event* event), epoll,
        operation, fd, event)
FAILING(int, epoll_wait, kEpollWait, (int epoll, epoll_event* events, int count, int timeout),
        epoll, events, count, timeout)
FAILING(int, unlink, kUnlink, (const char* path), path)
FAILING(int, unlinkat, kUnlinkat, (int folder, const char* path, int flags), folder, path, flags)
FAILING(int, renameat, kRenameat, (int from_folder, const char* from, int folder, const char* to),
        from_folder, from, folder, to)
FAILING(int, mkdirat, kMkdirat, (int folder, const char* path, mode_t mode), folder, path, mode)
FAILING(int, fchmod, kFchmod, (int fd, mode_t mode), fd, mode)
FAILING(int, fchmodat, kFchmodat, (int folder, const char* path, mode_t mode, int flags), folder,
        path, mode, flags)

__attribute__((visibility("default"))) ssize_t read(int fd, void* data, size_t size) {
  static const auto real = Real<ssize_t(int, void*, size_t)>("read");
  return MoveBytes(kRead, CALLER, size, Cut(size),
                   [=](std::size_t some) { return real(fd, data, some); });
}

__attribute__((visibility("default"))) ssize_t write(int fd, const void* data, size_t size) {
  static const auto real = Real<ssize_t(int, const void*, size_t)>("write");
  return MoveBytes(kWrite, CALLER, size, Cut(size),
                   [=](std::size_t some) { return real(fd, data, some); });
}

__attribute__((visibility("default"))) ssize_t send(int fd, const void* data, size_t size,
                                                    int flags) {
  static const auto real = Real<ssize_t(int, const void*, size_t, int)>("send");
  return MoveBytes(kSend, CALLER, size, Cut(size),
                   [=](std::size_t some) { return real(fd, data, some, flags); });
}

// A short read is no news unless it is very short.
__attribute__((visibility("default"))) ssize_t recv(int fd, void* data, size_t size, int flags) {
  static const auto real = Real<ssize_t(int, void*, size_t, int)>("recv");
  constexpr std::size_t kVeryShort = 7;
  return MoveBytes(kRecv, CALLER, size, std::min(size, kVeryShort),
                   [=](std::size_t some) { return real(fd, data, some, flags); });
}

__attribute__((visibility("default"))) ssize_t writev(int fd, const iovec* parts, int count) {
  static const auto real = Real<ssize_t(int, const iovec*, int)>("writev");
  return MoveParts(
      kWritev, CALLER, parts, static_cast<std::size_t>(count),
      [=](const iovec* some, std::size_t size) { return real(fd, some, static_cast<int>(size)); });
}

__attribute__((visibility("default"))) ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  static const auto real = Real<ssize_t(int, const msghdr*, int)>("sendmsg");
  return MoveParts(kSendmsg, CALLER, message->msg_iov, message->msg_iovlen,
                   [=](const iovec* some, std::size_t size) {
                     msghdr cut = *message;
                     cut.msg_iov = const_cast<iovec*>(some);
                     cut.msg_iovlen = size;
                     return real(fd, &cut, flags);
                   });
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

__attribute__((visibility("default"))) long syscall(long number, ...) {
  static const auto real = Real<long(long, ...)>("syscall");
  std::va_list more;
  va_start(more, number);
  std::array<long, 6> words{};
  for (long& word : words) {
    word = va_arg(more, long);
  }
  va_end(more);
  if ((number == SYS_pidfd_open && Fails(kPidfdOpen, CALLER)) ||
      (number == SYS_pidfd_send_signal && Fails(kPidfdSendSignal, CALLER))) {
    return -1;
  }
  return real(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}

// Where the real vfork is; null when this one fails.
void* RealVfork(const void* caller) {
  static const auto real = Real<pid_t()>("vfork");
  return Fails(kVfork, caller) ? nullptr : reinterpret_cast<void*>(real);
}

// Its child goes on in this very frame, which must not be there any more when its starter goes on: so
// it jumps to the real one.
__attribute__((visibility("default"))) pid_t vfork();
}
#if defined(__x86_64__)
asm(R"(
  .text
  .globl vfork
  .type vfork, @function
vfork:
  movq (%rsp), %rdi
  subq $8, %rsp
  call RealVfork
  addq $8, %rsp
  testq %rax, %rax
  je 1f
  jmp *%rax
1:
  movl $-1, %eax
  ret
  .size vfork, .-vfork
)");
#elif defined(__aarch64__)
asm(R"(
  .text
  .globl vfork
  .type vfork, %function
vfork:
  stp x29, x30, [sp, #-16]!
  mov x0, x30
  bl RealVfork
  ldp x29, x30, [sp], #16
  cbz x0, 1f
  br x0
1:
  mov w0, #-1
  ret
  .size vfork, .-vfork
)");
#else
extern "C" pid_t vfork() {
  static const auto real = Real<pid_t()>("fork");
  return Fails(kVfork, CALLER) ? -1 : real();
}
#endif

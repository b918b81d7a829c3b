// Which call is to fail, and of whom.
#ifndef TORTURE_SYSCALLS_STRIKE_H
#define TORTURE_SYSCALLS_STRIKE_H

namespace failing {

enum Call {
  kSocket,
  kSocketpair,
  kBind,
  kListen,
  kAccept4,
  kConnect,
  kGetsockopt,
  kVfork,
  kExecve,
  kPidfdOpen,
  kPidfdSendSignal,
  kWaitid,
  kWaitpid,
  kPipe2,
  kDup2,
  kDup3,
  kFcntl,
  kRead,
  kRecv,
  kWrite,
  kWritev,
  kSend,
  kSendmsg,
  kPoll,
  kEpollCreate1,
  kEpollCtl,
  kEpollWait,
  kPpoll,
  kOpen,
  kOpenat,
  kUnlink,
  kUnlinkat,
  kRenameat,
  kMkdirat,
  kFchmod,
  kFchmodat,
  kCalls
};

// The function behind this library's own of that name: the address sanitizer's, if there is one.
void* FindReal(const char* name);
template <class Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(FindReal(name));
}

// Counts a call of the code at that address. Whether it is to fail or to fall short.
bool Strikes(Call call, const void* caller);
// What a call that is struck does: moves less than it could, or fails, as errno then says.
bool FallsShort();
void SetError();

}  // namespace failing

#endif  // TORTURE_SYSCALLS_STRIKE_H

#include "process_exit.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <new>
#include <utility>

#include "child_process.h"
#include "send_queue.h"
#include "support.h"
#include "want_of_memory.h"

namespace RuntimeManager::host {

namespace {

pid_t Original() {
  // The first call comes with the first object of the host.
  static const pid_t original = ::getpid();
  return original;
}

// A byte that a copy of the process finds to be 0, and the original does not; null where memory has
// no such property. It spares each message a system call.
const volatile char* MakeMark() {
  const auto size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  void* const page =
      ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) {
    return nullptr;
  }
  // An emulator may accept any advice, and follow none.
  constexpr int kNoAdvice = -1;
  if (::madvise(page, size, kNoAdvice) == 0 || ::madvise(page, size, MADV_WIPEONFORK) != 0) {
    ::munmap(page, size);
    return nullptr;
  }
  *static_cast<char*>(page) = 1;
  return static_cast<const volatile char*>(page);
}

void Unlink(const QByteArray& path) {
  if (::unlink(path.constData()) == 0 || errno == ENOENT) {
    return;
  }
  const int error_number = errno;
  Attempt([&path, error_number] {
    Warn(QString("the socket file '%1' stays behind: %2; the next process that uses its folder "
                 "removes it")
             .arg(QString::fromUtf8(path), ErrnoText(error_number)));
  });
}

}  // namespace

bool IsForkedCopy() {
  static const volatile char* const mark = (static_cast<void>(Original()), MakeMark());
  return mark != nullptr ? *mark == 0 : ::getpid() != Original();
}

Error CheckOriginal() {
  if (!IsForkedCopy()) {
    return {};
  }
  return {
      Error::kWrongState,
      QString("process %1 is a forked copy of process %2, to which the runtime manager belongs: "
              "use it there, fork before its first use, or run a program by exec")
          .arg(::getpid())
          .arg(Original())};
}

ProcessExit& ProcessExit::Get() {
  // Never destroyed: it is needed until the very end of the process. Made without memory: an end
  // may be the first to ask for it.
  alignas(ProcessExit) static unsigned char storage[sizeof(ProcessExit)];
  static auto* const process_exit = [] {
    static_cast<void>(IsForkedCopy());
    std::atexit([] { Get().TakeAllSteps(); });
    return new (storage) ProcessExit;
  }();
  return *process_exit;
}

void ProcessExit::AddQueue(const std::shared_ptr<SendQueue>& queue, Patience patience) {
  const std::lock_guard lock(mutex_);
  queues_.emplace_back(queue, patience);
}

void ProcessExit::RemoveQueue(const std::shared_ptr<SendQueue>& queue) {
  if (IsForkedCopy()) {
    return;
  }
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(queues_.begin(), queues_.end(),
                                  [&queue](const auto& entry) { return entry.first == queue; });
  if (found != queues_.end()) {
    queues_.erase(found);
  }
}

void ProcessExit::AddChild(const std::shared_ptr<ChildProcess>& child) {
  const std::lock_guard lock(mutex_);
  children_.insert(child);
}

void ProcessExit::RemoveChild(const std::shared_ptr<ChildProcess>& child) {
  const std::lock_guard lock(mutex_);
  children_.erase(child);
}

void ProcessExit::AddFile(const QByteArray& path) {
  const std::lock_guard lock(mutex_);
  files_.insert(path);
}

void ProcessExit::RemoveFile(const QByteArray& path) {
  if (IsForkedCopy()) {
    return;
  }
  const bool is_known = [this, &path] {
    const std::lock_guard lock(mutex_);
    return files_.erase(path) > 0;
  }();
  if (is_known) {
    Unlink(path);
  }
}

void ProcessExit::LeaveNow(int status) {
  TakeAllSteps();
  ::_exit(status);
}

void ProcessExit::TakeAllSteps() {
  if (IsForkedCopy()) {
    return;
  }
  SendWhatWaits();
  EndChildren();
  RemoveFiles();
}

void ProcessExit::SendWhatWaits() {
  const auto now = std::chrono::steady_clock::now();
  const auto queues = [this] {
    const std::lock_guard lock(mutex_);
    return queues_;
  }();
  for (const auto& [queue, patience] : queues) {
    queue->FlushUntil(now + patience);
  }
}

void ProcessExit::EndChildren() {
  // Never destroyed: a child belongs to its thread, which may let go of it meanwhile.
  static auto* const children = new std::vector<std::shared_ptr<ChildProcess>>;
  {
    const std::lock_guard lock(mutex_);
    children->assign(children_.begin(), children_.end());
  }
  ChildProcess::EndAll(*children);
}

void ProcessExit::EndChildrenOfThisThread() {
  std::vector<std::shared_ptr<ChildProcess>> children;
  {
    const std::lock_guard lock(mutex_);
    std::copy_if(children_.begin(), children_.end(), std::back_inserter(children),
                 [](const auto& child) { return child->IsInItsThread(); });
  }
  ChildProcess::EndAll(children);
}

void ProcessExit::RemoveFiles() {
  const auto files = [this] {
    const std::lock_guard lock(mutex_);
    return std::exchange(files_, {});
  }();
  for (const QByteArray& path : files) {
    Unlink(path);
  }
}

}  // namespace RuntimeManager::host

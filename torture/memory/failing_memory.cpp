#include "failing_memory.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace tarv::torture {
namespace {

struct Stack {
  std::array<void*, 48> frames{};
  int depth = 0;

  void Fill() { depth = ::backtrace(frames.data(), static_cast<int>(frames.size())); }
};

thread_local bool counts = false;
thread_local long nth_fails = 0;
thread_local bool goes_on_failing = false;
thread_local long asked = 0;
thread_local long failed = 0;
thread_local Stack latest_failure;
std::atomic<long> blocks{0};

// Living blocks and where they come from. A table of fixed size: it may take no memory itself.
struct Origin {
  const void* block = nullptr;
  Stack stack;
};
std::array<Origin, 4096> origins;
bool watches = false;

Origin* FindOrigin(const void* block) {
  const auto found = std::find_if(origins.begin(), origins.end(),
                                  [block](const Origin& origin) { return origin.block == block; });
  return found == origins.end() ? nullptr : &*found;
}

void OnTaken(const void* block) {
  if (block == nullptr) {
    return;
  }
  ++blocks;
  Origin* const origin = watches ? FindOrigin(nullptr) : nullptr;
  if (origin != nullptr) {
    origin->block = block;
    origin->stack.Fill();
  }
}

void OnGivenBack(const void* block) {
  if (block == nullptr) {
    return;
  }
  --blocks;
  Origin* const origin = watches ? FindOrigin(block) : nullptr;
  if (origin != nullptr) {
    origin->block = nullptr;
  }
}

// A function that has no name outside its library is told by its place: "/path/libx.so+0x1234".
std::string FrameText(void* frame) {
  Dl_info info{};
  if (::dladdr(frame, &info) == 0) {
    return "?";
  }
  if (info.dli_sname == nullptr) {
    std::array<char, 32> place{};
    std::snprintf(place.data(), place.size(), "+0x%tx",
                  static_cast<char*>(frame) - static_cast<char*>(info.dli_fbase));
    return std::string(info.dli_fname) + place.data();
  }
  const char* const slash = std::strrchr(info.dli_fname, '/');
  const std::string library = slash != nullptr ? slash + 1 : info.dli_fname;
  int status = 0;
  char* const readable = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
  const std::string name = status == 0 ? readable : info.dli_sname;
  std::free(readable);
  return library + ":" + name;
}

std::string Text(const Stack& stack) {
  std::string text;
  for (int i = 0; i < stack.depth; ++i) {
    text += (i == 0 ? "" : " < ") + FrameText(stack.frames[static_cast<std::size_t>(i)]);
  }
  return text;
}

// Written at once, past all buffers: the process may not live to tell it later.
void WriteStack(const char* what, const Stack& stack) {
  const std::string line = "\n" + std::string(what) + ": " + Text(stack) + "\n";
  static_cast<void>(!::write(STDERR_FILENO, line.data(), line.size()));
}

void WriteStack(const char* what) {
  Stack here;
  here.Fill();
  WriteStack(what, here);
}

bool MustFail() {
  if (!counts) {
    return false;
  }
  ++asked;
  const bool fails =
      nth_fails > 0 && (asked == nth_fails || (goes_on_failing && asked > nth_fails));
  if (fails) {
    const OwnMemory own;
    latest_failure.Fill();
    if (++failed == 1) {
      WriteStack("memory fails", latest_failure);
    }
  }
  return fails;
}

void* Fail() {
  errno = ENOMEM;
  return nullptr;
}

// The alarm ends a telling that gets stuck, for what has crashed may hold locks. The signal goes on
// to end the process.
void OnCrash(int signal) {
  MendMemory();
  ::alarm(2);
  WriteStack("it crashed");
  static_cast<void>(::raise(signal));
}

void TellOfCrashes() {
  const rlimit no_core{};
  static_cast<void>(::setrlimit(RLIMIT_CORE, &no_core));
  struct sigaction action {};
  action.sa_handler = &OnCrash;
  action.sa_flags = SA_RESETHAND | SA_NODEFER;
  for (const int signal : {SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGSEGV}) {
    static_cast<void>(::sigaction(signal, &action, nullptr));
  }
}

}  // namespace

void LetMemoryFail(long nth, bool lasting) {
  nth_fails = nth;
  goes_on_failing = lasting;
  asked = failed = 0;
  counts = true;
}

// Async-signal-safe, and final: a scope of one's own memory may be under way.
void MendMemory() {
  counts = false;
  nth_fails = 0;
}

Want TakeWant() {
  const Want want{nth_fails, goes_on_failing, asked, failed};
  MendMemory();
  return want;
}

void PutWant(const Want& want) {
  LetMemoryFail(want.nth, want.lasting);
  asked = want.asked;
  failed = want.failed;
}

OwnMemory::OwnMemory() : before_(counts) { counts = false; }
OwnMemory::~OwnMemory() { counts = before_; }

long CountAllocations() { return asked; }
long CountFailures() { return failed; }
long CountBlocks() { return blocks; }

void TellLatestFailure() {
  const OwnMemory own;
  WriteStack("its exception escapes", latest_failure);
}

void PrepareMemory() {
  TellOfCrashes();
  Stack here;
  here.Fill();
  static_cast<void>(Text(here));
  std::puts("memory is prepared");
  // The C library looks for translations of its errors in the locale, which Qt sets.
  std::setlocale(LC_ALL, "");
  static_cast<void>(std::generic_category().message(ENOMEM));
}

void WatchBlocks() { watches = true; }

std::string LivingBlocks() {
  watches = false;
  std::string text;
  for (const Origin& origin : origins) {
    text += origin.block == nullptr ? "" : Text(origin.stack) + "\n";
  }
  return text;
}

}  // namespace tarv::torture

// The C library's own names of what stands before them here.
extern "C" {
void* __libc_malloc(std::size_t size);                     // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(std::size_t count, std::size_t size);  // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* memory, std::size_t size);      // NOLINT(bugprone-reserved-identifier)
void* __libc_memalign(std::size_t alignment,
                      std::size_t size);  // NOLINT(bugprone-reserved-identifier)
void __libc_free(void* memory);           // NOLINT(bugprone-reserved-identifier)

#define TORTURE_EXPORT __attribute__((visibility("default")))

TORTURE_EXPORT void* malloc(std::size_t size) {
  if (tarv::torture::MustFail()) {
    return tarv::torture::Fail();
  }
  void* const block = __libc_malloc(size);
  tarv::torture::OnTaken(block);
  return block;
}

TORTURE_EXPORT void* calloc(std::size_t count, std::size_t size) {
  if (tarv::torture::MustFail()) {
    return tarv::torture::Fail();
  }
  void* const block = __libc_calloc(count, size);
  tarv::torture::OnTaken(block);
  return block;
}

TORTURE_EXPORT void* realloc(void* memory, std::size_t size) {
  if (tarv::torture::MustFail()) {
    return tarv::torture::Fail();
  }
  void* const block = __libc_realloc(memory, size);
  if (block != nullptr || size == 0) {
    tarv::torture::OnGivenBack(memory);
    tarv::torture::OnTaken(block);
  }
  return block;
}

TORTURE_EXPORT void* memalign(std::size_t alignment, std::size_t size) {
  if (tarv::torture::MustFail()) {
    return tarv::torture::Fail();
  }
  void* const block = __libc_memalign(alignment, size);
  tarv::torture::OnTaken(block);
  return block;
}

TORTURE_EXPORT void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return memalign(alignment, size);
}

TORTURE_EXPORT int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  void* const block = memalign(alignment, size);
  if (block == nullptr) {
    return ENOMEM;
  }
  *memory = block;
  return 0;
}

TORTURE_EXPORT void free(void* memory) {
  tarv::torture::OnGivenBack(memory);
  __libc_free(memory);
}
}

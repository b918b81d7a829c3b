// Finds locks that are taken in more than one order, before two threads meet and wait for ever.
//
// Every program that is built with `TARV_CHECK_LOCKS` has these in place of the C library's locks, so that all mutexes
// of all modules pass here, those of headers and of libraries that it loads among them, and the
// product itself stays as it is. A thread that waits for lock B while it holds A makes an edge from
// A to B. An edge that closes a circle ends the process with both sides' stacks; the threads need
// not have met. So does a lock that a thread holds while a callback of the user's is about to run
// (quarn/internal/calls_out.h).
//
// A recursive lock is one that a receiver holds while it delivers, by design: it may be held while a
// callback runs, and two of them may be taken in either order, as by two ends in one process that
// hand their messages to each other.
//
// Locks are known by their addresses, and are forgotten with the memory that they lie in: `free` is
// taken over for that. It costs a comparison while no order is known, and a bit's look-up otherwise.
#include <dlfcn.h>
#include <execinfo.h>
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <new>
#include <utility>
#include <vector>

extern "C" {
void* __libc_malloc(std::size_t size);
void __libc_free(void* memory);
}

namespace {

using Address = std::uintptr_t;

struct Stack {
  std::array<void*, 24> frames;
  int size = 0;

  void Capture() { size = backtrace(frames.data(), static_cast<int>(frames.size())); }
  void Print() const { backtrace_symbols_fd(frames.data(), size, STDERR_FILENO); }
};

struct Held {
  Address lock;
  int times;
  bool is_recursive;
  void* taken_by;
};

constexpr std::size_t kMostHeld = 32;

struct ThisThread {
  std::array<Held, kMostHeld> held;
  std::size_t count = 0;
  // While the checker works: what it allocates and frees itself is not looked at.
  bool inside = false;
  // The edges seen last, so that the graph, which all threads share, is asked about new ones only.
  struct Known {
    Address from, to;
    std::uint64_t generation;
  };
  std::array<Known, 64> known;
};

thread_local ThisThread this_thread;

void Print(const char* text) {
  [[maybe_unused]] const auto written = write(STDERR_FILENO, text, std::strlen(text));
}

void PrintLock(const char* before, Address lock, const char* after) {
  std::array<char, 160> line{};
  std::snprintf(line.data(), line.size(), "%s%p%s", before, reinterpret_cast<void*>(lock), after);
  Print(line.data());
}

[[noreturn]] void GiveUp() {
  Print("lock order: `addr2line -Cfie PROGRAM +0xOFFSET` names the lines above.\n");
  std::abort();
}

// ---- The graph -------------------------------------------------------------------------------

class Guard {
 public:
  Guard() {
    this_thread.inside = true;
    while (busy_.test_and_set(std::memory_order_acquire)) {
    }
  }
  ~Guard() {
    busy_.clear(std::memory_order_release);
    this_thread.inside = false;
  }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

 private:
  static inline std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
};

// The checker's own memory: tests count what others allocate.
template <class T>
struct Allocator {
  using value_type = T;

  Allocator() = default;
  template <class Other>
  Allocator(const Allocator<Other>&) {}  // NOLINT(google-explicit-constructor)

  T* allocate(std::size_t count) { return static_cast<T*>(__libc_malloc(count * sizeof(T))); }
  void deallocate(T* memory, std::size_t) { __libc_free(memory); }
  friend bool operator==(const Allocator&, const Allocator&) { return true; }
  friend bool operator!=(const Allocator&, const Allocator&) { return false; }
};

// Each lock that was held while another was waited for, or waited for while another was held.
// Used under a Guard.
class Graph {
 public:
  void Add(Address from, Address to) {
    Edges& edges = locks_[from];
    const bool is_known =
        std::any_of(edges.begin(), edges.end(), [to](const Edge& edge) { return edge.to == to; });
    if (is_known) {
      return;
    }
    locks_.try_emplace(to);
    Edge edge{to, {}};
    edge.stack.Capture();
    Path path;
    if (FindPath(to, from, path)) {
      Report(from, edge, path);
    }
    edges.push_back(edge);
  }

  // Forgets all locks from `begin` up to `end`.
  bool Forget(Address begin, Address end) {
    const auto first = locks_.lower_bound(begin);
    const auto last = locks_.lower_bound(end);
    if (first == last) {
      return false;
    }
    locks_.erase(first, last);
    for (auto& [lock, edges] : locks_) {
      edges.erase(std::remove_if(
                      edges.begin(), edges.end(),
                      [begin, end](const Edge& edge) { return begin <= edge.to && edge.to < end; }),
                  edges.end());
    }
    return true;
  }

  std::size_t CountEdges() const {
    std::size_t count = 0;
    for (const auto& [lock, edges] : locks_) {
      count += edges.size();
    }
    return count;
  }

 private:
  struct Edge {
    Address to;
    Stack stack;  // where `to` was waited for
  };
  using Edges = std::vector<Edge, Allocator<Edge>>;
  using Path = std::vector<const Edge*, Allocator<const Edge*>>;

  // The edges that lead from one lock to another. Without circles so far, it ends.
  bool FindPath(Address from, Address to, Path& path) const {
    const auto found = locks_.find(from);
    if (found == locks_.end()) {
      return false;
    }
    for (const Edge& edge : found->second) {
      path.push_back(&edge);
      if (edge.to == to || FindPath(edge.to, to, path)) {
        return true;
      }
      path.pop_back();
    }
    return false;
  }

  [[noreturn]] static void Report(Address held, const Edge& wanted, const Path& path) {
    Print("lock order: locks are taken in a circle, in which threads can wait for ever.\n");
    PrintLock("lock order: now, with ", held, " held, this thread takes ");
    PrintLock("", wanted.to, ":\n");
    wanted.stack.Print();
    Address from = wanted.to;
    for (const Edge* const edge : path) {
      PrintLock("lock order: earlier, with ", from, " held, a thread took ");
      PrintLock("", edge->to, ":\n");
      edge->stack.Print();
      from = edge->to;
    }
    GiveUp();
  }

  std::map<Address, Edges, std::less<>, Allocator<std::pair<const Address, Edges>>> locks_;
};

// Never destroyed: threads may still run while the process ends.
Graph& GetGraph() {
  alignas(Graph) static std::array<unsigned char, sizeof(Graph)> storage;
  static auto* const graph = new (storage.data()) Graph;
  return *graph;
}

// Rises when locks are forgotten: what threads know by then may be about others.
std::atomic<std::uint64_t> generation{1};
// Pages on which a lock of the graph lies, by the low bits of their numbers.
constexpr std::size_t kPages = 1 << 14;
constexpr int kPageShift = 12;
std::array<std::atomic<bool>, kPages> pages{};
std::atomic<bool> has_edges{false};

void MarkPage(Address lock) { pages[(lock >> kPageShift) % kPages] = true; }

void AddEdge(Address from, Address to) {
  auto& known = this_thread.known[(from / 8 + to / 4) % this_thread.known.size()];
  const std::uint64_t now = generation.load(std::memory_order_relaxed);
  if (known.from == from && known.to == to && known.generation == now) {
    return;
  }
  const Guard guard;
  GetGraph().Add(from, to);
  MarkPage(from);
  MarkPage(to);
  has_edges = true;
  known = {from, to, now};
}

// Called before memory is given back. Large blocks are looked up whatever the pages say.
void ForgetLocksIn(void* memory) {
  if (this_thread.inside || memory == nullptr) {
    return;
  }
  const auto begin = reinterpret_cast<Address>(memory);
  const Address end = begin + malloc_usable_size(memory);
  const Address first = begin >> kPageShift;
  const Address last = (end - 1) >> kPageShift;
  if (last - first < 2 && !pages[first % kPages] && !pages[last % kPages]) {
    return;
  }
  const Guard guard;
  if (GetGraph().Forget(begin, end)) {
    ++generation;
  }
}

// ---- What a thread holds ---------------------------------------------------------------------

Held* FindHeld(Address lock) {
  ThisThread& self = this_thread;
  for (std::size_t i = self.count; i-- > 0;) {
    if (self.held[i].lock == lock) {
      return &self.held[i];
    }
  }
  return nullptr;
}

// Before a thread waits.
void Wants(const void* lock, bool is_recursive) {
  ThisThread& self = this_thread;
  const auto wanted = reinterpret_cast<Address>(lock);
  if (self.count == 0 || self.inside || FindHeld(wanted) != nullptr) {
    return;
  }
  for (std::size_t i = 0; i < self.count; ++i) {
    if (!is_recursive || !self.held[i].is_recursive) {
      AddEdge(self.held[i].lock, wanted);
    }
  }
}

void Took(const void* lock, bool is_recursive, void* taken_by) {
  ThisThread& self = this_thread;
  const auto taken = reinterpret_cast<Address>(lock);
  if (self.inside) {
    return;
  }
  if (Held* const held = FindHeld(taken)) {
    ++held->times;
    return;
  }
  if (self.count == kMostHeld) {
    Print("lock order: a thread holds more locks than the checker can count.\n");
    std::abort();
  }
  self.held[self.count++] = {taken, 1, is_recursive, taken_by};
}

void Gave(const void* lock) {
  ThisThread& self = this_thread;
  Held* const held = FindHeld(reinterpret_cast<Address>(lock));
  if (held == nullptr || --held->times > 0) {
    return;
  }
  std::copy(held + 1, self.held.data() + self.count, held);
  --self.count;
}

// The C library's own function, looked up once for each name.
template <class Function>
Function* Find(std::atomic<Function*>& known, const char* name) {
  Function* function = known.load(std::memory_order_relaxed);
  if (function == nullptr) {
    function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    known.store(function, std::memory_order_relaxed);
  }
  return function;
}

template <class Lock>
using LockFunction = int(Lock*);

bool IsRecursive(const pthread_mutex_t* mutex) {
  return (mutex->__data.__kind & PTHREAD_MUTEX_RECURSIVE) != 0;
}

}  // namespace

extern "C" {

#define TARV_REAL(type, name)                             \
  static std::atomic<LockFunction<type>*> known{nullptr}; \
  LockFunction<type>* const real = Find(known, #name)

__attribute__((visibility("default"))) int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  TARV_REAL(pthread_mutex_t, pthread_mutex_lock);
  Wants(mutex, IsRecursive(mutex));
  const int result = real(mutex);
  if (result == 0) {
    Took(mutex, IsRecursive(mutex), __builtin_return_address(0));
  }
  return result;
}

__attribute__((visibility("default"))) int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
  TARV_REAL(pthread_mutex_t, pthread_mutex_trylock);
  const int result = real(mutex);
  if (result == 0) {
    Took(mutex, IsRecursive(mutex), __builtin_return_address(0));
  }
  return result;
}

__attribute__((visibility("default"))) int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
  TARV_REAL(pthread_mutex_t, pthread_mutex_unlock);
  Gave(mutex);
  return real(mutex);
}

__attribute__((visibility("default"))) int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
  TARV_REAL(pthread_rwlock_t, pthread_rwlock_rdlock);
  Wants(lock, false);
  const int result = real(lock);
  if (result == 0) {
    Took(lock, false, __builtin_return_address(0));
  }
  return result;
}

__attribute__((visibility("default"))) int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
  TARV_REAL(pthread_rwlock_t, pthread_rwlock_wrlock);
  Wants(lock, false);
  const int result = real(lock);
  if (result == 0) {
    Took(lock, false, __builtin_return_address(0));
  }
  return result;
}

__attribute__((visibility("default"))) int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept {
  TARV_REAL(pthread_rwlock_t, pthread_rwlock_unlock);
  Gave(lock);
  return real(lock);
}

// Weak: a test that replaces the allocator has its own.
__attribute__((visibility("default"), weak)) void free(void* memory) noexcept {
  if (has_edges.load(std::memory_order_relaxed)) {
    ForgetLocksIn(memory);
  }
  __libc_free(memory);
}

__attribute__((visibility("default"))) std::size_t tarv_locks_held() { return this_thread.count; }

__attribute__((visibility("default"))) std::size_t tarv_lock_orders() {
  const Guard guard;
  return GetGraph().CountEdges();
}

__attribute__((visibility("default"))) void tarv_expect_no_lock(const char* callback) {
  const ThisThread& self = this_thread;
  for (std::size_t i = 0; i < self.count; ++i) {
    if (!self.held[i].is_recursive) {
      this_thread.inside = true;
      Print("lock order: a callback is about to run with a lock held: ");
      Print(callback);
      Print(".\n");
      PrintLock("lock order: ", self.held[i].lock, " was taken by:\n");
      backtrace_symbols_fd(&self.held[i].taken_by, 1, STDERR_FILENO);
      Print("lock order: the call:\n");
      Stack stack;
      stack.Capture();
      stack.Print();
      GiveUp();
    }
  }
}

}  // extern "C"

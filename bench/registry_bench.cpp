// From a handle to its object, beside what that cannot do without: a read lock and the lock of a
// weak pointer (the floor). With one thread and with two at a time.
#include <benchmark/benchmark.h>
#include <quarn/dispatcher.h>
#include <quarn/object.h>

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "bench.h"

namespace {

struct ThingRef;

class Thing : public quarn::Object<Thing, ThingRef*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  explicit Thing(PrivateTag /*tag*/) : Object(quarn::IDispatcher::CreateEmpty()) {}
  static std::shared_ptr<Thing> Create() { return Object::Create(PrivateTag()); }
};

// As many objects as a busy application has, and one of them to look for.
std::vector<std::shared_ptr<Thing>>& Things() {
  static std::vector<std::shared_ptr<Thing>> things = [] {
    std::vector<std::shared_ptr<Thing>> made(20);
    for (auto& thing : made) {
      thing = Thing::Create();
    }
    return made;
  }();
  return things;
}

void FromRef(benchmark::State& state) {
  ThingRef* const ref = Things()[10]->GetRef();
  for (auto _ : state) {
    benchmark::DoNotOptimize(Thing::FromRef(ref));
  }
}

void ReadLockAndWeakLock(benchmark::State& state) {
  static std::shared_mutex mutex;
  static const std::weak_ptr<Thing> weak = Things()[5];
  for (auto _ : state) {
    const std::shared_lock lock(mutex);
    benchmark::DoNotOptimize(weak.lock());
  }
}

}  // namespace

int main(int argc, char** argv) {
  // The library leaves atomic instructions out as long as a process has one thread.
  std::thread([] {}).join();
  Things();
  for (const int threads : {1, 2}) {
    benchmark::RegisterBenchmark("read lock and weak lock", &ReadLockAndWeakLock)
        ->Threads(threads)
        ->UseRealTime();
    benchmark::RegisterBenchmark("object from its handle", &FromRef)
        ->Threads(threads)
        ->UseRealTime();
  }
  return tarv::bench::RunBenchmarks(argc, argv);
}

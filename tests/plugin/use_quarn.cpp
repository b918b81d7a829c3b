// The foundation: objects, signals, caches, loading, buffers, log, conversions.
#include <quarn/buffer.h>
#include <quarn/dispatcher.h>
#include <quarn/library.h>
#include <quarn/library_api.h>
#include <quarn/listener.h>
#include <quarn/logger.h>
#include <quarn/numbers.h>
#include <quarn/object.h>
#include <quarn/resources_cache.h>
#include <quarn/run_once_signal.h>
#include <quarn/signal.h>
#include <quarn/slot.h>
#include <quarn/strings.h>

#include <cstring>
#include <memory>

#include "check.h"

struct ClockRef;

namespace plugin {
namespace {

class Clock : public quarn::Object<Clock, ClockRef*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  explicit Clock(PrivateTag) : Object(quarn::IDispatcher::CreateEmpty()) {}
  static std::shared_ptr<Clock> Create() { return Object::Create(PrivateTag()); }
};

class Counting : public quarn::IDispatcher {
 public:
  void Invoke(const std::function<void()>& task, unsigned int) override {
    ++calls;
    task();
  }
  int calls = 0;
};

void UseObjects() {
  const auto clock = Clock::Create();
  PLUGIN_CHECK(Clock::FromRef(clock->GetRef()) == clock);
  PLUGIN_CHECK(quarn::details::CounterClient::GenerateId() > clock->GetId());
  clock->Invoke([] {}, 0);
  clock->ResetDispatcher();
  Counting counting;
  static_cast<quarn::IDispatcher&>(counting).Invoke([] {}, 0);
  PLUGIN_CHECK(counting.calls == 1);
}

void UseSignals() {
  int sum = 0;
  const auto add = std::make_shared<quarn::CppStyleListener<int>>([&sum](int x) { sum += x; });
  quarn::OwnedSignal<int> signal;
  const auto id = signal.Subscribe(add);
  signal.Emit(2);
  signal.Unsubscribe(id);
  signal.Emit(3);
  PLUGIN_CHECK(sum == 2);
  quarn::OwnedRunOnceSignal<int> once;
  once.Subscribe(add);
  once.Emit(5);
  PLUGIN_CHECK(sum == 7);
}

void UseBuffers() {
  quarn::Buffer buffer(reinterpret_cast<const std::uint8_t*>("abc"), 3);
  buffer.WriteBytes(buffer.GetData(), 3);
  buffer.WriteByte(0);
  buffer.WriteAlignment(8);
  PLUGIN_CHECK(buffer.GetSize() == 8);
  PLUGIN_CHECK(quarn::Buffer::FromBase64(buffer.ToBase64()) == buffer);
  QuarnBufferView view{};
  PLUGIN_CHECK(buffer.ToCAPI(&view, sizeof(view)) == QUARN_RESULT_SUCCESS);
  PLUGIN_CHECK(quarn::Buffer::FromCAPI(&view) == buffer);
  quarn::Buffer moved;
  moved = std::move(buffer);
  PLUGIN_CHECK(moved.Extract()->size() == 8);
}

void UseCache() {
  quarn::ResourcesCache cache;
  const auto chunk = cache.CreateChunk();
  PLUGIN_CHECK(std::strcmp(cache.AppendStr(chunk, "text"), "text") == 0);
  PLUGIN_CHECK(std::strcmp(cache.AppendStr(chunk, "a", "b").second, "b") == 0);
  QuarnBufferView view{};
  PLUGIN_CHECK(cache.AppendBuffer(chunk, quarn::Buffer(), &view, sizeof(view)));
  cache.RemoveChunk(chunk);
  quarn::ResourcesCacheGuard guard(cache);
  PLUGIN_CHECK(std::strcmp(guard.AppendStr("kept"), "kept") == 0);
}

struct Table {
  std::uint64_t size;
  int (*Answer)();
};

QuarnResult LoadTable(Table* table, std::uint64_t) {
  table->Answer = [] { return 42; };
  return QUARN_RESULT_SUCCESS;
}

void UseLibraries() {
  PLUGIN_CHECK(quarn::Library::Create("/nowhere/libnone.so") == nullptr);
  const auto library = quarn::Library::Create("libc.so.6");
  PLUGIN_CHECK(library->Resolve<int()>("getpid") != nullptr);
  const auto api = quarn::LibraryApi<Table>::Create(library, &LoadTable);
  PLUGIN_CHECK(quarn::CallEntry(QUARN_FIND_ENTRY(api->GetTable(), Answer), 0) == 42);
}

void UseTexts() {
  std::int64_t whole = 0;
  PLUGIN_CHECK(quarn::numbers::SafeDoubleToInt64(7.0, whole) && whole == 7);
  std::int32_t parsed = 0;
  PLUGIN_CHECK(!quarn::strings::ParseInt("7\x1b[", parsed));
  QUARN_LOG_INFO() << "a plug-in's line: " << quarn::Escaped{"\n"};
}

}  // namespace

void UseQuarn() {
  UseObjects();
  UseSignals();
  UseBuffers();
  UseCache();
  UseLibraries();
  UseTexts();
}

}  // namespace plugin

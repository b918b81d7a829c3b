// An embedder of a few lines that writes down everything that it is given, for what a real one
// never does.
#ifndef CW_TESTS_SUPPORT_FAKE_EMBEDDER_H
#define CW_TESTS_SUPPORT_FAKE_EMBEDDER_H

#include <flutter_veltra/plugin_context.h>
#include <quarn/listener.h>
#include <quarn/sized_struct.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace cw::test_support {

// One at a time: C entries have no other way to find it than a global.
class FakeEmbedder {
 public:
  FakeEmbedder() { current = this; }
  ~FakeEmbedder() { current = nullptr; }
  FakeEmbedder(const FakeEmbedder&) = delete;
  FakeEmbedder& operator=(const FakeEmbedder&) = delete;

  static _FlutterVeltraEngine* MakeEngine(std::uintptr_t number) {
    return reinterpret_cast<_FlutterVeltraEngine*>(number);
  }

  // A context of `size` bytes in memory of exactly that size (but at least 8), so that reading more
  // shows.
  FlutterVeltraPluginContext* MakeContext(std::size_t size, std::uintptr_t engine = 4711) {
    const FlutterVeltraPluginContext whole{size,
                                           FLUTTER_VELTRA_API_VERSION,
                                           MakeEngine(engine),
                                           &LoadApplication,
                                           &SetRegistrarDestroyedCallback,
                                           &LoadView,
                                           &LoadTextures,
                                           nullptr,
                                           &LoadMessenger};
    memory.emplace_back(new char[std::max<std::size_t>(size, sizeof(std::size_t))]);
    std::memcpy(memory.back().get(), &whole,
                std::min(std::max<std::size_t>(size, sizeof(std::size_t)), sizeof(whole)));
    return reinterpret_cast<FlutterVeltraPluginContext*>(memory.back().get());
  }

  void Deliver(const std::string& text, _FlutterVeltraResponse* response) {
    const FlutterVeltraMessage message{sizeof(FlutterVeltraMessage),
                                       "channel",
                                       reinterpret_cast<const std::uint8_t*>(text.data()),
                                       text.size(),
                                       response,
                                       &SendResponse};
    handler(handler_data, &message);
  }

  std::vector<std::string> log;                // what was asked, with its arguments
  std::vector<_FlutterVeltraEngine*> engines;  // for which engine, one for each entry called
  std::vector<std::string> loads;              // which tables, of which sizes
  bool load_succeeds = true;
  bool send_succeeds = true;
  std::size_t requested_size = 0;
  FlutterVeltraApplicationProcTable application_table{
      sizeof(FlutterVeltraApplicationProcTable),
      &EnqueueTask,
      &HasPermission,
      nullptr,
      nullptr,
      &Exit,
      &CreateMainWindow,
      nullptr,
      nullptr,
      &GetLibraryPath,
      nullptr,
  };
  bool lock_succeeds = true;
  void (*lock_release)(void* lock_data) = &ReleaseLock;  // in each lock that is asked for
  FlutterVeltraTextureProcTable texture_table{sizeof(FlutterVeltraTextureProcTable),
                                              &RegisterTexture, &MarkTextureFrameAvailable,
                                              &UnregisterTexture};
  FlutterVeltraMessengerProcTable table{sizeof(FlutterVeltraMessengerProcTable), &Send, &SetHandler,
                                        &Subscribe, &Unsubscribe};
  FlutterVeltraReplyCallback reply = nullptr;
  void* reply_data = nullptr;
  FlutterVeltraMessageCallback handler = nullptr;
  void* handler_data = nullptr;
  std::unique_ptr<quarn::CStyleListener<bool>> subscription;
  FlutterVeltraRegistrarDestroyedCallback on_destroyed = nullptr;
  int subscribed_to_end = 0;
  std::vector<_FlutterVeltraResponse*> responses;  // which messages were answered

  static inline FakeEmbedder* current = nullptr;

 private:
  static void Note(_FlutterVeltraEngine* engine, std::string line) {
    current->engines.push_back(engine);
    current->log.push_back(std::move(line));
  }

  template <class Table>
  static bool Load(const char* name, _FlutterVeltraEngine* engine, const Table& from, Table* table,
                   std::size_t size) {
    current->engines.push_back(engine);
    current->loads.push_back(name + (" " + std::to_string(size)));
    if (current->load_succeeds) {
      std::memcpy(table, &from, std::min(size, sizeof(*table)));
    }
    return current->load_succeeds;
  }
  static bool LoadApplication(_FlutterVeltraEngine* engine,
                              FlutterVeltraApplicationProcTable* table, std::size_t size) {
    return Load("application", engine, current->application_table, table, size);
  }
  static bool LoadTextures(_FlutterVeltraEngine* engine, FlutterVeltraTextureProcTable* table,
                           std::size_t size) {
    return Load("textures", engine, current->texture_table, table, size);
  }
  static bool LoadView(_FlutterVeltraEngine* engine, FlutterVeltraViewProcTable* table,
                       std::size_t size) {
    FlutterVeltraViewProcTable view_table{};
    view_table.size = sizeof(view_table);
    view_table.LockResources = &LockResources;
    view_table.GetTheme = &GetTheme;
    return Load("view", engine, view_table, table, size);
  }
  static bool LoadMessenger(_FlutterVeltraEngine* engine, FlutterVeltraMessengerProcTable* table,
                            std::size_t size) {
    current->requested_size = size;
    return Load("messenger", engine, current->table, table, size);
  }

  static void EnqueueTask(_FlutterVeltraEngine* engine, const FlutterVeltraSlot* task,
                          unsigned int param) {
    Note(engine, "enqueue " + std::to_string(param));
    quarn::CStyleListener<> listener(task);
  }
  static bool HasPermission(_FlutterVeltraEngine* engine, const char* name) {
    Note(engine, "permission " + std::string(name));
    return true;
  }
  static void Exit(_FlutterVeltraEngine* engine, int exit_code) {
    Note(engine, "exit " + std::to_string(exit_code));
  }
  static bool CreateMainWindow(_FlutterVeltraEngine* engine, const char* entry_point,
                               const std::uint8_t* /*payload*/, std::size_t payload_size) {
    Note(engine, "main window " + std::string(entry_point) + " " + std::to_string(payload_size));
    return true;
  }
  static const char* GetLibraryPath(_FlutterVeltraEngine* engine, const char* name) {
    Note(engine, "library " + std::string(name));
    return "/lib";
  }

  static bool LockResources(_FlutterVeltraEngine* engine, FlutterVeltraResourcesLock* lock) {
    Note(engine, "lock");
    lock->release = current->lock_release;
    return current->lock_succeeds;
  }
  static void ReleaseLock(void* /*lock_data*/) { current->log.emplace_back("release lock"); }
  static bool GetTheme(_FlutterVeltraEngine* engine, FlutterVeltraTheme* /*theme*/) {
    Note(engine, "theme");
    return true;
  }

  static std::int64_t RegisterTexture(_FlutterVeltraEngine* engine,
                                      const FlutterVeltraTexture* texture) {
    Note(engine, "register " + std::to_string(texture->size));
    texture->release(texture->user_data);
    return 0x100000007;
  }
  static bool MarkTextureFrameAvailable(_FlutterVeltraEngine* engine, std::int64_t id) {
    Note(engine, "mark " + std::to_string(id));
    return true;
  }
  static void UnregisterTexture(_FlutterVeltraEngine* engine, std::int64_t id,
                                const FlutterVeltraSlot* done) {
    Note(engine, "unregister " + std::to_string(id));
    quarn::CStyleListener<> listener(done);
    listener.Invoke();
  }

  static bool Send(_FlutterVeltraEngine* engine, const char* channel, const std::uint8_t* message,
                   std::size_t size, FlutterVeltraReplyCallback reply, void* user_data) {
    Note(engine, "send " + std::string(channel) + " " + std::string(message, message + size) +
                     (reply == nullptr ? "" : " and reply"));
    current->reply = reply;
    current->reply_data = user_data;
    return current->send_succeeds;
  }
  static void SetHandler(_FlutterVeltraEngine* engine, const char* channel,
                         FlutterVeltraMessageCallback callback, void* user_data) {
    Note(engine, (callback == nullptr ? "clear " : "set ") + std::string(channel));
    current->handler = callback;
    current->handler_data = user_data;
  }
  static std::uint64_t Subscribe(_FlutterVeltraEngine* engine, const char* channel,
                                 const FlutterVeltraBoolSlot* slot) {
    Note(engine, "subscribe " + std::string(channel));
    current->subscription = std::make_unique<quarn::CStyleListener<bool>>(slot);
    return 17;
  }
  static void Unsubscribe(_FlutterVeltraEngine* engine, const char* channel, std::uint64_t id) {
    Note(engine, "unsubscribe " + std::string(channel) + " " + std::to_string(id));
    current->subscription.reset();
  }
  static void SendResponse(_FlutterVeltraEngine* engine, _FlutterVeltraResponse* response,
                           const std::uint8_t* data, std::size_t size) {
    Note(engine, "response " + std::string(data, data + size));
    current->responses.push_back(response);
  }
  static void SetRegistrarDestroyedCallback(_FlutterVeltraEngine* engine,
                                            FlutterVeltraRegistrarDestroyedCallback callback) {
    current->engines.push_back(engine);
    ++current->subscribed_to_end;
    current->on_destroyed = callback;
  }

  std::vector<std::unique_ptr<char[]>> memory;
};

}  // namespace cw::test_support

#endif  // CW_TESTS_SUPPORT_FAKE_EMBEDDER_H

// An embedder of a few lines that writes down what it is asked, for what a real one never does.
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
                                           nullptr,
                                           &SetRegistrarDestroyedCallback,
                                           nullptr,
                                           nullptr,
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

  std::vector<std::string> log;
  bool load_succeeds = true;
  bool send_succeeds = true;
  std::size_t requested_size = 0;
  FlutterVeltraMessengerProcTable table{sizeof(FlutterVeltraMessengerProcTable), &Send, &SetHandler,
                                        &Subscribe, &Unsubscribe};
  FlutterVeltraReplyCallback reply = nullptr;
  void* reply_data = nullptr;
  FlutterVeltraMessageCallback handler = nullptr;
  void* handler_data = nullptr;
  std::unique_ptr<quarn::CStyleListener<bool>> subscription;
  FlutterVeltraRegistrarDestroyedCallback on_destroyed = nullptr;

  static inline FakeEmbedder* current = nullptr;

 private:
  static bool LoadMessenger(_FlutterVeltraEngine*, FlutterVeltraMessengerProcTable* table,
                            std::size_t size) {
    current->requested_size = size;
    if (current->load_succeeds) {
      std::memcpy(table, &current->table, std::min(size, sizeof(*table)));
    }
    return current->load_succeeds;
  }
  static bool Send(_FlutterVeltraEngine*, const char* channel, const std::uint8_t* message,
                   std::size_t size, FlutterVeltraReplyCallback reply, void* user_data) {
    current->log.push_back("send " + std::string(channel) + " " +
                           std::string(message, message + size) +
                           (reply == nullptr ? "" : " and reply"));
    current->reply = reply;
    current->reply_data = user_data;
    return current->send_succeeds;
  }
  static void SetHandler(_FlutterVeltraEngine*, const char* channel,
                         FlutterVeltraMessageCallback callback, void* user_data) {
    current->log.push_back((callback == nullptr ? "clear " : "set ") + std::string(channel));
    current->handler = callback;
    current->handler_data = user_data;
  }
  static std::uint64_t Subscribe(_FlutterVeltraEngine*, const char* channel,
                                 const FlutterVeltraBoolSlot* slot) {
    current->log.push_back("subscribe " + std::string(channel));
    current->subscription = std::make_unique<quarn::CStyleListener<bool>>(slot);
    return 17;
  }
  static void Unsubscribe(_FlutterVeltraEngine*, const char* channel, std::uint64_t id) {
    current->log.push_back("unsubscribe " + std::string(channel) + " " + std::to_string(id));
    current->subscription.reset();
  }
  static void SendResponse(_FlutterVeltraEngine*, _FlutterVeltraResponse*, const std::uint8_t* data,
                           std::size_t size) {
    current->log.push_back("response " + std::string(data, data + size));
  }
  static void SetRegistrarDestroyedCallback(_FlutterVeltraEngine*,
                                            FlutterVeltraRegistrarDestroyedCallback callback) {
    current->on_destroyed = callback;
  }

  std::vector<std::unique_ptr<char[]>> memory;
};

}  // namespace cw::test_support

#endif  // CW_TESTS_SUPPORT_FAKE_EMBEDDER_H

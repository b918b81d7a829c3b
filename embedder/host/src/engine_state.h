// EngineState: what an engine's handle stands for.
#ifndef VELTRA_HOST_SRC_ENGINE_STATE_H
#define VELTRA_HOST_SRC_ENGINE_STATE_H

#include <flutter_veltra/plugin_context.h>
#include <quarn/object.h>
#include <veltra/host/application.h>
#include <veltra/host/engine_options.h>
#include <veltra/host/messenger.h>
#include <veltra/host/textures.h>
#include <veltra/host/view.h>

#include <deque>
#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include "platform_thread.h"

namespace veltra::host {

class EngineState : public quarn::Object<EngineState, _FlutterVeltraEngine*> {
  struct PrivateTag {
    explicit PrivateTag() = default;
  };

 public:
  EngineState(EngineOptions options, PrivateTag);
  static std::shared_ptr<EngineState> Create(EngineOptions options);

  const EngineOptions& GetOptions() const { return options_; }
  PlatformThread& GetThread() { return *thread_; }
  // The part of this type.
  template <class Part>
  Part& Get() {
    return *std::get<std::unique_ptr<Part>>(parts_);
  }

  FlutterVeltraPluginContext* MakeContext(std::size_t size);

  // Has the event loop run `action` unless the engine has ended by then.
  void Post(const std::function<void(EngineState& engine)>& action);

  // The entries of the context itself.
  void SetRegistrarDestroyedCallback(FlutterVeltraRegistrarDestroyedCallback callback);

  // Ends the engine, once.
  void End();

 private:
  EngineOptions options_;
  std::shared_ptr<PlatformThread> thread_;
  std::tuple<std::unique_ptr<Application>, std::unique_ptr<Messenger>, std::unique_ptr<View>,
             std::unique_ptr<Textures>>
      parts_;
  std::deque<FlutterVeltraPluginContext> contexts_;
  std::vector<FlutterVeltraRegistrarDestroyedCallback> on_destroyed_;
};

}  // namespace veltra::host

#endif  // VELTRA_HOST_SRC_ENGINE_STATE_H

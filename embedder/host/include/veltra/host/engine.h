// veltra::host::Engine: an engine on the workstation, for plug-ins to be plugged into.
//
//   QCoreApplication application(argc, argv);
//   veltra::host::Engine engine;
//   BatteryRegisterWithRegistrar(engine.MakeContext());
//   engine.GetMessenger().InvokeMethod("example/battery", "level", {}, [](const auto& outcome) {
//     std::cout << outcome.value << '\n';
//   });
#ifndef VELTRA_HOST_ENGINE_H
#define VELTRA_HOST_ENGINE_H

#include <flutter_veltra/plugin_context.h>
#include <veltra/host/application.h>
#include <veltra/host/engine_options.h>
#include <veltra/host/export.h>
#include <veltra/host/messenger.h>
#include <veltra/host/textures.h>
#include <veltra/host/view.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace veltra::host {

class EngineState;

// The thread that makes it is its platform thread, whose Qt event loop drives everything: messages,
// replies, tasks and notifications arrive while it runs, in order. The engine belongs to that
// thread. There may be several engines at a time.
class VELTRA_HOST_EXPORT Engine {
 public:
  // Throws std::logic_error when there is no QCoreApplication.
  explicit Engine(EngineOptions options = {});

  // Ends the engine: replies that plug-ins still wait for come back empty, the registrar is told,
  // which destroys the plug-ins, subscriptions and textures are released, tasks that have not run
  // are dropped. May be called from within anything that the engine runs.
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // A context as a plug-in's registration function takes it, of at most `size` bytes: fewer than
  // the default make it one of an older embedder. Owned by the engine, and good for its life.
  FlutterVeltraPluginContext* MakeContext(std::size_t size = sizeof(FlutterVeltraPluginContext));

  // The engine's handle, as the contexts carry it.
  _FlutterVeltraEngine* GetRef() const;

  Application& GetApplication();
  Messenger& GetMessenger();
  View& GetView();
  Textures& GetTextures();

  // Runs the event loop until `condition` holds; false when it does not within `timeout`.
  bool RunUntil(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(30));

 private:
  std::shared_ptr<EngineState> state_;
};

}  // namespace veltra::host

#endif  // VELTRA_HOST_ENGINE_H

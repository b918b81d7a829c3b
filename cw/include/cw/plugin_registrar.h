// cw::PluginRegistrar: everything that a plug-in gets from the engine that it is plugged into.
//
//   void TimerRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
//     auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
//     if (registrar != nullptr) {
//       registrar->AddPlugin(std::make_shared<TimerPlugin>(registrar));
//     }
//   }
#ifndef CW_PLUGIN_REGISTRAR_H
#define CW_PLUGIN_REGISTRAR_H

#include <cw/application_wrapper.h>
#include <cw/binary_messenger.h>
#include <cw/plugin.h>
#include <cw/texture_registrar.h>
#include <cw/view_wrapper.h>
#include <flutter_veltra/plugin_context.h>
#include <quarn/export.h>

#include <filesystem>
#include <map>
#include <memory>
#include <set>

namespace cw {

// One for each engine, made and owned by PluginRegistrarManager. Belongs to the platform thread.
class TARV_EXPORT PluginRegistrar {
 public:
  // Builds the four services from the context; one that the embedder is too old for is missing.
  explicit PluginRegistrar(FlutterVeltraPluginContext* context);
  // Clears the plug-ins while the services still stand.
  virtual ~PluginRegistrar();
  PluginRegistrar(const PluginRegistrar&) = delete;
  PluginRegistrar& operator=(const PluginRegistrar&) = delete;

  // The services. They live as long as the registrar, the application also as long as somebody
  // shares it. Null where the embedder does not provide the service.
  const std::shared_ptr<ApplicationWrapper>& GetApplicationWrapper() const { return application_; }
  ViewWrapper* GetViewWrapper() const { return view_.get(); }
  BinaryMessenger* GetMessenger() const { return messenger_.get(); }
  TextureRegistrar* GetTextureRegistrar() const { return textures_.get(); }

  // Keeps the plug-in alive as long as the registrar. A null pointer, or one that is there already,
  // adds nothing.
  void AddPlugin(const std::shared_ptr<Plugin>& plugin);

  // Calls Release on every plug-in, then lets go of them all.
  void ClearPlugins();

  // The folder that the application's libraries are in, as the application reports it. Empty, after
  // a log line, when the embedder cannot tell.
  std::filesystem::path GetLibraryPath() const;

 private:
  std::shared_ptr<ApplicationWrapper> application_;
  std::unique_ptr<ViewWrapper> view_;
  std::unique_ptr<BinaryMessenger> messenger_;
  std::unique_ptr<TextureRegistrar> textures_;
  std::set<std::shared_ptr<Plugin>> plugins_;
};

// The registrars of the process's engines. Belongs to the platform thread.
class TARV_EXPORT PluginRegistrarManager {
 public:
  // Lives until the process is gone: it is not destroyed at exit, when the embedder that a
  // registrar would talk to may be gone already.
  static PluginRegistrarManager& GetInstance();

  PluginRegistrarManager(const PluginRegistrarManager&) = delete;
  PluginRegistrarManager& operator=(const PluginRegistrarManager&) = delete;

  // The registrar of the context's engine, made by the first call. Null for a null context, for one
  // that is too small to name its engine, and for a null engine. It goes with its engine when the
  // embedder tells of the engine's end, and otherwise stays.
  PluginRegistrar* GetRegistrarImpl(FlutterVeltraPluginContext* context);

  // Destroys the engine's registrar, if there is one. The embedder calls it.
  static void OnRegistrarDestroyed(_FlutterVeltraEngine* engine);

 private:
  PluginRegistrarManager() = default;

  std::map<_FlutterVeltraEngine*, std::unique_ptr<PluginRegistrar>> registrars_;
};

}  // namespace cw

#endif  // CW_PLUGIN_REGISTRAR_H

#include <cw/plugin_registrar.h>
#include <quarn/logger.h>
#include <quarn/sized_struct.h>

#include <utility>

#include "plugin_context.h"

namespace cw {

PluginRegistrarManager& PluginRegistrarManager::GetInstance() {
  static PluginRegistrarManager* const manager = new PluginRegistrarManager;
  return *manager;
}

PluginRegistrar* PluginRegistrarManager::GetRegistrarImpl(FlutterVeltraPluginContext* context) {
  _FlutterVeltraEngine* const engine = internal::GetEngine(context);
  if (engine == nullptr) {
    return nullptr;
  }
  const auto found = registrars_.find(engine);
  if (found != registrars_.end()) {
    return found->second.get();
  }
  auto* const registrar =
      registrars_.emplace(engine, std::make_unique<PluginRegistrar>(context)).first->second.get();
  if (const auto on_destroyed =
          quarn::ReadField(context, &FlutterVeltraPluginContext::SetRegistrarDestroyedCallback)) {
    on_destroyed(engine, &PluginRegistrarManager::OnRegistrarDestroyed);
  }
  return registrar;
}

void PluginRegistrarManager::OnRegistrarDestroyed(_FlutterVeltraEngine* engine) {
  auto& registrars = GetInstance().registrars_;
  const auto found = registrars.find(engine);
  if (found == registrars.end()) {
    return;
  }
  // Stays in the map while its plug-ins are told, so that they still find it.
  found->second->ClearPlugins();
  // Taken out before it is destroyed: what dies with it may come back here.
  const auto dying = registrars.extract(engine);
}

// The analyzer loses track of owning pointers that are returned into members.
// NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks)
PluginRegistrar::PluginRegistrar(FlutterVeltraPluginContext* context)
    : application_(ApplicationWrapper::Create(context)),
      view_(ViewWrapper::Create(context)),
      messenger_(BinaryMessenger::Create(context)),
      textures_(TextureRegistrar::Create(context)) {}
// NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

PluginRegistrar::~PluginRegistrar() { ClearPlugins(); }

void PluginRegistrar::AddPlugin(const std::shared_ptr<Plugin>& plugin) {
  if (plugin) {
    plugins_.insert(plugin);
  }
}

void PluginRegistrar::ClearPlugins() {
  // Taken out first: a plug-in may call back into the registrar.
  const auto plugins = std::exchange(plugins_, {});
  for (const std::shared_ptr<Plugin>& plugin : plugins) {
    plugin->Release();
  }
}

std::filesystem::path PluginRegistrar::GetLibraryPath() const {
  if (!application_) {
    QUARN_LOG_ERROR() << "Method 'GetLibraryPath' is not provided by the loaded API.";
    return {};
  }
  return application_->GetLibraryPath();
}

}  // namespace cw

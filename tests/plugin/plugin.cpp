// The plug-in: linked against libtarv.so and Qt alone, with nothing left undefined.
#include <cw/plugin_registrar.h>

#include <exception>
#include <iostream>

#include "check.h"

extern "C" __attribute__((visibility("default"))) bool UseEverything(
    FlutterVeltraPluginContext* context) {
  try {
    auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
    plugin::UseQuarn();
    plugin::UseValues();
    plugin::UseVorpc();
    plugin::UseTarv(registrar);
    plugin::UseContext(context);
    plugin::UseRegistrar(registrar);
    return true;
  } catch (const std::exception& error) {
    std::cerr << "the plug-in stops: " << error.what() << '\n';
    return false;
  }
}

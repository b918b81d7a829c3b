// What the parts of the plug-in share: each uses the public classes of one library, and throws at
// the first operation that does not do what its header says.
#ifndef TESTS_PLUGIN_CHECK_H
#define TESTS_PLUGIN_CHECK_H

#include <flutter_veltra/plugin_context.h>

#include <stdexcept>
#include <string>

namespace cw {
class PluginRegistrar;
}

namespace plugin {

inline void Check(bool holds, const char* what, int line) {
  if (!holds) {
    throw std::runtime_error("line " + std::to_string(line) + ": " + what);
  }
}

#define PLUGIN_CHECK(condition) ::plugin::Check((condition), #condition, __LINE__)

void UseQuarn();
void UseValues();
void UseRegistrar(cw::PluginRegistrar* registrar);
void UseContext(FlutterVeltraPluginContext* context);
void UseVorpc();
void UseTarv(cw::PluginRegistrar* registrar);

}  // namespace plugin

#endif  // TESTS_PLUGIN_CHECK_H

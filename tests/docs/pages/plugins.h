// What docs/plugins.md leaves out.
#include <cw/event_channel.h>
#include <cw/method_channel.h>
#include <cw/plugin_registrar.h>

#include <iostream>
#include <memory>

extern "C" void BatteryRegisterWithRegistrar(FlutterVeltraPluginContext* context);

class BatteryPlugin : public cw::Plugin {
 public:
  explicit BatteryPlugin(cw::PluginRegistrar* registrar);
  void Answer(cw::PluginRegistrar* registrar);
  void Tick(cw::PluginRegistrar* registrar);

 private:
  std::unique_ptr<cw::EventSink<>> events_;
};

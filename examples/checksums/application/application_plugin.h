// The application's plug-in: takes calls from Dart and has the task do the work.
#ifndef CHECKSUMS_APPLICATION_PLUGIN_H
#define CHECKSUMS_APPLICATION_PLUGIN_H

#include <flutter_veltra/plugin_context.h>

extern "C" void ChecksumsPluginRegisterWithRegistrar(FlutterVeltraPluginContext* context);

#endif  // CHECKSUMS_APPLICATION_PLUGIN_H

// The task's plug-in: serves "hash" requests to the application that started the task.
#ifndef CHECKSUMS_TASK_PLUGIN_H
#define CHECKSUMS_TASK_PLUGIN_H

#include <flutter_veltra/plugin_context.h>

extern "C" void ChecksumsTaskPluginRegisterWithRegistrar(FlutterVeltraPluginContext* context);

#endif  // CHECKSUMS_TASK_PLUGIN_H

// Programs made of plug-ins: the whole main function of an application or of a task.
//
//   int main(int argc, char** argv) {
//     return veltra::host::RunTask(argc, argv, {ChecksumsRegisterWithRegistrar});
//   }
#ifndef VELTRA_HOST_RUN_H
#define VELTRA_HOST_RUN_H

#include <flutter_veltra/plugin_context.h>
#include <veltra/host/engine.h>
#include <veltra/host/engine_options.h>
#include <veltra/host/export.h>

#include <functional>
#include <vector>

namespace veltra::host {

// Returned for arguments that cannot be understood, after a line on standard error.
inline constexpr int kExitUsage = 64;

// Plays the Dart side: called once, after the plug-ins are registered, before the event loop runs.
using DartMain = std::function<void(Engine& engine)>;

// Makes a QCoreApplication unless there is one, an engine, registers the plug-ins with it, and runs
// the event loop until somebody exits it (a plug-in by the application's Exit, QCoreApplication::
// exit, SIGTERM or SIGINT). Then ends the engine, so that the plug-ins go in order, and returns the
// exit code; 128 and the signal's number after a signal. The arguments after the program's name
// become those of Dart's entry point, unless `options` has some.
VELTRA_HOST_EXPORT int RunApplication(int argc, char** argv,
                                      const std::vector<FlutterVeltraRegisterPlugin>& plugins,
                                      EngineOptions options = {}, const DartMain& dart = nullptr);

// The same for a background task. The arguments "--libs-path DIR", with which tasks are started,
// make DIR the library path that plug-ins are told, and are not passed on; kExitUsage when DIR is
// missing.
VELTRA_HOST_EXPORT int RunTask(int argc, char** argv,
                               const std::vector<FlutterVeltraRegisterPlugin>& plugins,
                               EngineOptions options = {}, const DartMain& dart = nullptr);

}  // namespace veltra::host

#endif  // VELTRA_HOST_RUN_H

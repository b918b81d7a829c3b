// An application that knows its plug-in only by path, and no library of it:
//
//   probe LIBRARY_FOLDER

#include <dlfcn.h>
#include <veltra/host/run.h>

#include <cstdlib>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : "";
  void* const plugin = dlopen((folder + "/libprobe_plugin.so").c_str(), RTLD_NOW);
  if (plugin == nullptr) {
    std::cerr << dlerror() << "\n";
    return EXIT_FAILURE;
  }
  const auto register_plugin =
      reinterpret_cast<FlutterVeltraRegisterPlugin>(dlsym(plugin, "ProbeRegisterWithRegistrar"));
  veltra::host::EngineOptions options;
  options.library_path = folder;
  return veltra::host::RunApplication(argc, argv, {register_plugin}, options);
}

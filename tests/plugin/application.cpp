// application PLUGIN: loads the plug-in as an embedder does and has it use every public class.
#include <dlfcn.h>
#include <veltra/host/engine.h>

#include <QCoreApplication>
#include <cstdlib>
#include <filesystem>
#include <iostream>

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  void* const library = argc == 2 ? dlopen(argv[1], RTLD_NOW) : nullptr;
  if (library == nullptr) {
    std::cerr << "there is no plug-in: " << dlerror() << '\n';
    return EXIT_FAILURE;
  }
  using Use = bool(FlutterVeltraPluginContext*);
  auto* const use = reinterpret_cast<Use*>(dlsym(library, "UseEverything"));
  if (use == nullptr) {
    std::cerr << "this is not the plug-in: " << argv[1] << '\n';
    return EXIT_FAILURE;
  }
  veltra::host::EngineOptions options;
  options.library_path = LIBRARY_FOLDER;
  veltra::host::Engine engine(options);
  return use(engine.MakeContext()) ? EXIT_SUCCESS : EXIT_FAILURE;
}

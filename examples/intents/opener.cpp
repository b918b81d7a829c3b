// opener URI: asks the platform to open a URI.

#include <dlfcn.h>
#include <tarv/manager_wrapper.h>

#include <QCoreApplication>
#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace {

std::filesystem::path LibraryFolder() {
  Dl_info info{};
  dladdr(reinterpret_cast<void*>(&TARVProcTableLoad), &info);
  return std::filesystem::absolute(info.dli_fname).parent_path();
}

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  if (argc != 2) {
    std::cerr << "usage: opener URI\n";
    return 2;
  }
  const auto manager =
      tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LibraryFolder());
  const auto intents = manager ? manager->GetIntentManager() : nullptr;
  if (!intents) {
    return EXIT_FAILURE;  // the log has said why
  }
  intents->OpenUri(argv[1], [uri = argv[1]](bool opened) {
    std::cout << uri << (opened ? " is open\n" : " could not be opened\n");
    QCoreApplication::exit(opened ? EXIT_SUCCESS : EXIT_FAILURE);
  });
  return QCoreApplication::exec();
}

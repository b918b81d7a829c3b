// Has the task "sum" add two numbers, and says how many copies of libtarv.so are mapped: the
// program is linked with one, and its plug-in opens one in the application's lib folder.
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <tarv/version.h>
#include <veltra/host/run.h>

#include <QCoreApplication>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>

// The files of that name in the process's memory, by their inodes.
std::set<std::string> MappedLibraries() {
  std::ifstream maps("/proc/self/maps");
  std::set<std::string> inodes;
  for (std::string line; std::getline(maps, line);) {
    std::istringstream fields(line);
    std::string range, mode, offset, device, inode, file;
    fields >> range >> mode >> offset >> device >> inode >> file;
    // The first page of each mapping, so that the same file mapped twice counts twice.
    if (file.size() > 10 && file.substr(file.size() - 10) == "libtarv.so" && offset == "00000000") {
      inodes.insert(range);
    }
  }
  return inodes;
}

struct Adder : cw::Plugin {
  explicit Adder(cw::PluginRegistrar* registrar)
      : manager(tarv::ManagerWrapper::Create(registrar)),
        client(manager ? manager->CreateIpcClient("sum") : nullptr) {
    if (!client) {
      std::exit(EXIT_FAILURE);
    }
    client->SendRequest("add", std::vector<std::int32_t>{20, 22}, [](const auto& response) {
      if (response.HasResult()) {
        std::cout << "sum " << *response.GetResult() << ", mapped " << MappedLibraries().size()
                  << ", version " TARV_VERSION << std::endl;
      }
      QCoreApplication::exit(response.IsError());
    });
    client->Run();
  }
  std::unique_ptr<tarv::ManagerWrapper> manager;
  std::shared_ptr<vorpc::IClient> client;
};

void RegisterAdder(FlutterVeltraPluginContext* context) {
  auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Adder>(registrar));
}

int main(int argc, char** argv) {
  return veltra::host::RunApplication(argc, argv, {RegisterAdder});
}

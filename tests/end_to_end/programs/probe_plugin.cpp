// A plug-in in a file of its own, as an application carries it: beside libtarv.so, which it is
// linked against. It examines its library, has a task do the same, prints both and exits with 0
// when each process has one instance.

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <quarn/export.h>
#include <tarv/manager_wrapper.h>

#include <QCoreApplication>
#include <cstdlib>
#include <iostream>
#include <utility>

#include "end_to_end/one_instance.h"

namespace {

class Probe final : public cw::Plugin {
 public:
  explicit Probe(cw::PluginRegistrar* registrar)
      : library_(std::filesystem::canonical(registrar->GetLibraryPath() / "libtarv.so")),
        manager_(tarv::ManagerWrapper::Create(registrar)),
        client_(manager_->CreateIpcClient("worker")) {
    Count("application", tarv::test::ExamineLibrary(registrar->GetLibraryPath()));
    client_->OnConnected([](const auto& error) {
      if (error) {
        std::cout << *error << std::endl;
        QCoreApplication::exit(EXIT_FAILURE);
      }
    });
    client_->SendRequest("examine library", {}, [this](const vorpc::Message::Response& response) {
      Count("task", response.HasResult() ? *response.GetResult() : cw::EncodableValue());
      QCoreApplication::exit(good_ == 2 ? EXIT_SUCCESS : EXIT_FAILURE);
    });
    client_->Run();
  }

 private:
  void Count(const char* where, const cw::EncodableValue& found) {
    std::cout << where << ": " << found << std::endl;
    good_ += found.AsMap() != nullptr && tarv::test::IsOneInstance(found, library_.string());
  }

  const std::filesystem::path library_;
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IClient> client_;
  int good_ = 0;
};

}  // namespace

extern "C" TARV_EXPORT void ProbeRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Probe>(registrar));
}

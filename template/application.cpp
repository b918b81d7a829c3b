// The application: has its task add the numbers on the command line, and prints the sum.
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <QCoreApplication>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "names.h"

namespace {

class Application : public cw::Plugin {
 public:
  explicit Application(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)),
        client_(manager_ ? manager_->CreateIpcClient(my_app::kTask) : nullptr) {
    if (!client_) {
      std::exit(EXIT_FAILURE);  // the log has said why
    }
    client_->SendRequest(my_app::kAdd, Numbers(*registrar), [](const auto& response) {
      if (response.IsError()) {
        std::cerr << *response.GetError() << '\n';
      } else {
        std::cout << "the sum is " << *response.GetResult() << '\n';
      }
      QCoreApplication::exit(response.IsError() ? EXIT_FAILURE : EXIT_SUCCESS);
    });
    client_->Run();
  }

 private:
  static std::vector<std::int32_t> Numbers(const cw::PluginRegistrar& registrar) {
    std::vector<std::int32_t> numbers;
    for (const std::string& text : registrar.GetApplicationWrapper()->GetDartEntryPointArgs()) {
      numbers.push_back(std::atoi(text.c_str()));
    }
    return numbers;
  }

  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IClient> client_;
};

void Register(FlutterVeltraPluginContext* context) {
  auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Application>(registrar));
}

}  // namespace

int main(int argc, char** argv) { return veltra::host::RunApplication(argc, argv, {Register}); }

// The application: has its task add the numbers on the command line, and prints the sum.
#include <cw/plugin_registrar.h>
#include <tarv/calls/caller.h>
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
        caller_(manager_ ? manager_->CreateIpcClient(my_app::kTask) : nullptr,
                tarv::CallerOptions().TaskName(my_app::kTask)) {
    caller_.Call(my_app::kAdd, Numbers(*registrar))
        .Then([](const tarv::Outcome<std::int32_t>& sum) {
          if (sum) {
            std::cout << "the sum is " << *sum << '\n';
          } else {
            std::cerr << sum.GetError().what() << '\n';
          }
          QCoreApplication::exit(sum ? EXIT_SUCCESS : EXIT_FAILURE);
        });
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
  tarv::Caller caller_;
};

void Register(FlutterVeltraPluginContext* context) {
  auto* registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Application>(registrar));
}

}  // namespace

int main(int argc, char** argv) { return veltra::host::RunApplication(argc, argv, {Register}); }

// A program made of two plug-ins, as an application or as a task: sample_program KIND ARGUMENT...
#include <cw/plugin_registrar.h>
#include <sys/stat.h>
#include <unistd.h>
#include <veltra/host/run.h>

#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

class SamplePlugin : public cw::Plugin {
 public:
  explicit SamplePlugin(const char* name) : name_(name) {}
  void Release() override { std::cout << name_ << " released" << std::endl; }

 private:
  const char* name_;
};

cw::PluginRegistrar* GetRegistrar(FlutterVeltraPluginContext* context) {
  return cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
}

void ReportingRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  cw::PluginRegistrar* const registrar = GetRegistrar(context);
  registrar->AddPlugin(std::make_shared<SamplePlugin>("reporting"));
  std::cout << "library path " << registrar->GetLibraryPath().string() << std::endl;
  for (const std::string& argument : registrar->GetApplicationWrapper()->GetDartEntryPointArgs()) {
    std::cout << "argument " << argument << std::endl;
  }
}

// Leaves no room in any pipe of this program's own.
void FillPipes() {
  constexpr int kDescriptors = 64;
  for (int descriptor = STDERR_FILENO + 1; descriptor < kDescriptors; ++descriptor) {
    struct stat facts {};
    const bool is_pipe = fstat(descriptor, &facts) == 0 && S_ISFIFO(facts.st_mode);
    while (is_pipe && write(descriptor, "", 1) == 1) {
    }
  }
}

void ExitingRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  const auto application = GetRegistrar(context)->GetApplicationWrapper();
  const auto arguments = application->GetDartEntryPointArgs();
  if (!arguments.empty() && arguments.front() == "block-and-wait-for-signal") {
    constexpr int kLimitSeconds = 20;
    alarm(kLimitSeconds);
    FillPipes();
    kill(getpid(), SIGTERM);
  } else if (!arguments.empty() && arguments.front() == "wait-for-signal") {
    application->EnqueueTask([] { kill(getpid(), SIGTERM); }, 0);
  } else {
    application->Exit(7);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<FlutterVeltraRegisterPlugin> plugins = {&ReportingRegisterWithRegistrar,
                                                            &ExitingRegisterWithRegistrar};
  const bool is_task = argc > 1 && std::string_view(argv[1]) == "task";
  return is_task ? veltra::host::RunTask(argc - 1, argv + 1, plugins)
                 : veltra::host::RunApplication(
                       argc - 1, argv + 1, plugins, {}, [argc, argv](veltra::host::Engine& engine) {
                         std::cout << "dart " << (engine.GetRef() != nullptr) << std::endl;
                         if (std::string_view(argv[argc - 1]).rfind("dart-runs-loop", 0) == 0) {
                           engine.RunUntil([] { return false; }, std::chrono::milliseconds(300));
                         }
                       });
}

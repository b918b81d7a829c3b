// checksums [FOLDER]: the SHA-256 of every file below FOLDER (default: where you are), worked out
// by a background task, in the format that sha256sum -c reads.

#include <dlfcn.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <tarv/tarv_capi.h>
#include <unistd.h>
#include <veltra/host/run.h>

#include <QSocketNotifier>
#include <filesystem>
#include <iostream>
#include <memory>

#include "application_plugin.h"
#include "dart_side.h"

namespace {

constexpr char kUsage[] = "usage: checksums [FOLDER]\n";

// Where the program's libtarv.so lies: the application's library folder.
std::filesystem::path LibraryFolder() {
  Dl_info info{};
  dladdr(reinterpret_cast<void*>(&TARVProcTableLoad), &info);
  return std::filesystem::absolute(info.dli_fname).parent_path();
}

// A descriptor that becomes readable when somebody asks the program to end.
int InterruptDescriptor() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

// The Dart side, and the wish of a user who cannot wait for it.
class Program {
 public:
  Program(veltra::host::Engine& engine, const std::string& folder)
      : dart_(engine, checksums::ListFiles(folder)) {
    QObject::connect(&notifier_, &QSocketNotifier::activated, &notifier_, [this] {
      signalfd_siginfo signal{};
      if (read(descriptor_, &signal, sizeof(signal)) == sizeof(signal)) {
        dart_.Interrupt();
      }
    });
    dart_.Start();
  }
  ~Program() { close(descriptor_); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

 private:
  checksums::DartSide dart_;
  const int descriptor_ = InterruptDescriptor();
  const QSocketNotifier notifier_{descriptor_, QSocketNotifier::Read};
};

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc == 2 ? argv[1] : ".";
  std::error_code ignored;  // a folder that cannot be looked at is as good as none
  if (argc > 2) {
    std::cerr << kUsage;
    return checksums::kBadUsage;
  }
  if (!std::filesystem::is_directory(folder, ignored)) {
    std::cerr << "checksums: there is no folder '" << folder << "'\n";
    return checksums::kBadUsage;
  }
  std::unique_ptr<Program> program;
  veltra::host::EngineOptions options;
  options.library_path = LibraryFolder();
  return veltra::host::RunApplication(argc, argv, {ChecksumsPluginRegisterWithRegistrar},
                                      std::move(options),
                                      [&program, &folder](veltra::host::Engine& engine) {
                                        program = std::make_unique<Program>(engine, folder);
                                      });
}

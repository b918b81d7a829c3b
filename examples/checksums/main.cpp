// checksums [FOLDER]: the SHA-256 of every file below FOLDER (default: where you are), worked out
// by a background task, in the format that sha256sum -c reads.

#include <dlfcn.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <filesystem>
#include <iostream>

#include "application.h"

namespace {

namespace fs = std::filesystem;

constexpr char kUsage[] = "usage: checksums [FOLDER]\n";

std::string LibraryFolder() {
  Dl_info info{};
  return dladdr(reinterpret_cast<void*>(&TARVProcTableLoad), &info) != 0
             ? fs::absolute(info.dli_fname).parent_path().string()
             : std::string();
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

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication qt(argc, argv);
  if (argc > 2) {
    std::cerr << kUsage;
    return checksums::kBadUsage;
  }
  const std::string folder = argc == 2 ? argv[1] : ".";
  std::error_code error;
  if (!fs::is_directory(folder, error)) {
    std::cerr << "checksums: there is no folder '" << folder << "'\n" << kUsage;
    return checksums::kBadUsage;
  }
  checksums::Application application(checksums::ListFiles(folder), LibraryFolder());
  const int interrupt = InterruptDescriptor();
  const QSocketNotifier on_interrupt(interrupt, QSocketNotifier::Read);
  QObject::connect(&on_interrupt, &QSocketNotifier::activated, [&application, interrupt] {
    signalfd_siginfo signal{};
    if (read(interrupt, &signal, sizeof(signal)) == sizeof(signal)) {
      application.Interrupt();
    }
  });
  const int status = application.Start() ? QCoreApplication::exec() : checksums::kTaskFailed;
  close(interrupt);
  return status;
}

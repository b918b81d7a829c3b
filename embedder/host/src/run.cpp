#include <fcntl.h>
#include <unistd.h>
#include <veltra/host/run.h>

#include <QCoreApplication>
#include <QSocketNotifier>
#include <array>
#include <cerrno>
#include <csignal>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace veltra::host {
namespace {

constexpr std::string_view kLibsPath = "--libs-path";
constexpr int kSignalExitBase = 128;  // how shells report a signal

// Where the signal handler writes; -1 while nobody reads.
volatile std::sig_atomic_t signal_pipe = -1;
// The signal that came last; 0 for none.
volatile std::sig_atomic_t latest_signal = 0;

void OnSignal(int signal_number) {
  const int interrupted_errno = errno;
  latest_signal = signal_number;
  ssize_t written = 0;
  do {
    written = write(signal_pipe, "", 1);
  } while (written < 0 && errno == EINTR);
  if (written != 1) {
    // Nobody would hear of it: the process ends as if it had not asked for the signal.
    signal(signal_number, SIG_DFL);
    raise(signal_number);
  }
  errno = interrupted_errno;
}

// Turns SIGTERM and SIGINT into an orderly end of the event loop while it lives.
class SignalWatch {
 public:
  SignalWatch() {
    if (pipe2(pipe_.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
      throw std::runtime_error("cannot make a pipe to wait for signals with");
    }
    notifier_ = std::make_unique<QSocketNotifier>(pipe_[0], QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(),
                     [this] { ExitForSignal(); });
    latest_signal = 0;
    signal_pipe = pipe_[1];
    struct sigaction action {};
    action.sa_handler = &OnSignal;
    action.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
      sigaction(kSignals[i], &action, &before_[i]);
    }
  }
  ~SignalWatch() {
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
      sigaction(kSignals[i], &before_[i], nullptr);
    }
    signal_pipe = -1;
    notifier_.reset();
    close(pipe_[0]);
    close(pipe_[1]);
  }
  SignalWatch(const SignalWatch&) = delete;
  SignalWatch& operator=(const SignalWatch&) = delete;

  // The code to exit with, once a signal has come.
  std::optional<int> GetExitCode() const { return exit_code_; }

 private:
  static constexpr std::array<int, 2> kSignals = {SIGTERM, SIGINT};

  // What the pipe holds only wakes the event loop, so it does not matter whether it can be read.
  void ExitForSignal() {
    char byte = 0;
    [[maybe_unused]] const ssize_t size = read(pipe_[0], &byte, 1);
    exit_code_ = kSignalExitBase + latest_signal;
    QCoreApplication::exit(*exit_code_);
  }

  std::optional<int> exit_code_;

  std::array<int, 2> pipe_{};
  std::array<struct sigaction, kSignals.size()> before_{};
  std::unique_ptr<QSocketNotifier> notifier_;
};

// Takes "--libs-path DIR" out of the arguments. False when DIR is missing.
bool TakeLibraryPath(std::vector<std::string>* arguments, std::filesystem::path* library_path) {
  for (auto argument = arguments->begin(); argument != arguments->end(); ++argument) {
    if (*argument != kLibsPath) {
      continue;
    }
    const auto value = argument + 1;
    if (value == arguments->end() || value->empty()) {
      return false;
    }
    *library_path = *value;
    arguments->erase(argument, value + 1);
    return true;
  }
  return true;
}

int Run(int argc, char** argv, const std::vector<FlutterVeltraRegisterPlugin>& plugins,
        EngineOptions options, const DartMain& dart) {
  std::unique_ptr<QCoreApplication> application;
  if (QCoreApplication::instance() == nullptr) {
    application = std::make_unique<QCoreApplication>(argc, argv);
  }
  const SignalWatch signals;
  Engine engine(std::move(options));
  for (const FlutterVeltraRegisterPlugin register_plugin : plugins) {
    register_plugin(engine.MakeContext());
  }
  if (!dart) {
    return QCoreApplication::exec();
  }
  dart(engine);
  // Whoever asked for the end while Dart itself ran the loop found no loop to end.
  if (const auto signal_code = signals.GetExitCode()) {
    return *signal_code;
  }
  const std::optional<int> code = engine.GetApplication().GetExitCode();
  return code ? *code : QCoreApplication::exec();
}

}  // namespace

int RunApplication(int argc, char** argv, const std::vector<FlutterVeltraRegisterPlugin>& plugins,
                   EngineOptions options, const DartMain& dart) {
  if (options.entry_point_args.empty() && argc > 1) {
    options.entry_point_args.assign(argv + 1, argv + argc);
  }
  return Run(argc, argv, plugins, std::move(options), dart);
}

int RunTask(int argc, char** argv, const std::vector<FlutterVeltraRegisterPlugin>& plugins,
            EngineOptions options, const DartMain& dart) {
  std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
  if (!TakeLibraryPath(&arguments, &options.library_path)) {
    std::cerr << "The option " << kLibsPath
              << " needs the folder of the application's libraries after it: " << kLibsPath
              << " DIR\n";
    return kExitUsage;
  }
  if (options.entry_point_args.empty()) {
    options.entry_point_args = std::move(arguments);
  }
  return Run(argc, argv, plugins, std::move(options), dart);
}

}  // namespace veltra::host

#include "interrupt.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

namespace tarvctl {
namespace {

std::array<int, 2> g_pipe{-1, -1};  // a signal's handler may write to a pipe, and hardly more

void OnSignal(int number) {
  const int before = errno;
  const char byte = 0;
  static_cast<void>(!::write(g_pipe[1], &byte, 1));
  std::signal(number, SIG_DFL);
  errno = before;
}

}  // namespace

Interrupt::Interrupt(std::function<void()> on_interrupt) : on_interrupt_(std::move(on_interrupt)) {
  static_cast<void>(!::pipe2(g_pipe.data(), O_CLOEXEC | O_NONBLOCK));
  notifier_ = std::make_unique<QSocketNotifier>(g_pipe[0], QSocketNotifier::Read);
  QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(), [this] {
    char byte = 0;
    static_cast<void>(!::read(g_pipe[0], &byte, 1));
    on_interrupt_();
  });
  std::signal(SIGINT, &OnSignal);
  std::signal(SIGTERM, &OnSignal);
}

Interrupt::~Interrupt() {
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
  notifier_.reset();
  ::close(g_pipe[0]);
  ::close(g_pipe[1]);
}

}  // namespace tarvctl

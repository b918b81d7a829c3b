// Ctrl-C, as an event of the loop.
#ifndef TARVCTL_INTERRUPT_H
#define TARVCTL_INTERRUPT_H

#include <QtCore/QSocketNotifier>
#include <functional>
#include <memory>

namespace tarvctl {

// For its life, SIGINT and SIGTERM call the function from the event loop. The second one ends the
// process as it would have without this.
class Interrupt {
 public:
  explicit Interrupt(std::function<void()> on_interrupt);
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

 private:
  std::function<void()> on_interrupt_;
  std::unique_ptr<QSocketNotifier> notifier_;
};

}  // namespace tarvctl

#endif  // TARVCTL_INTERRUPT_H

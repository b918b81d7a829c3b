// The program of the task "checksums".

#include <signal.h>
#include <veltra/host/run.h>

#include "task_plugin.h"

namespace {

// Ctrl-C at a terminal reaches every process there. What it means is up to the application, which
// tells the task.
void LeaveInterruptsToTheApplication() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  LeaveInterruptsToTheApplication();
  return veltra::host::RunTask(argc, argv, {ChecksumsTaskPluginRegisterWithRegistrar});
}

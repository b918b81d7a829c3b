// The program of the task "checksums".

#include <veltra/host/run.h>

#include "task_plugin.h"

int main(int argc, char** argv) {
  return veltra::host::RunTask(argc, argv, {ChecksumsTaskPluginRegisterWithRegistrar});
}

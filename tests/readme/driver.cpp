// Gives the README's example the event loop and the task that it asks for, and hears what it
// prints.

#include <QCoreApplication>
#include <cstdlib>
#include <iostream>
#include <string>

#include "kit/service.h"
#include "support/capture.h"

extern "C" void StartEcho(void);

namespace {

std::string OutputOfExample() {
  const tarv::test::CaptureStdout output;
  StartEcho();
  tarv::test::WaitUntil([&output] { return !output.GetText().empty(); });
  return output.GetText();
}

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  const tarv::test::ScopedVariable tasks("RUNTIME_MANAGER_TASK_PATH", tarv::test::TaskFolder());
  const tarv::test::RuntimeFolder folder;
  const std::string output = OutputOfExample();
  std::cout << output;
  const tarv::test::Tables tables;
  tables.root.Release(tables.root.Initialize());
  const bool ended = tarv::test::WaitUntil([] { return tarv::test::Children().empty(); });
  return ended && output == "the task says: hello\n" ? EXIT_SUCCESS : EXIT_FAILURE;
}

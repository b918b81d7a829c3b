// Gives the README's example the event loop and the task that it asks for.

#include <QCoreApplication>
#include <cstdlib>

#include "kit/service.h"

extern "C" void StartEcho(void);

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  const tarv::test::ScopedVariable tasks("RUNTIME_MANAGER_TASK_PATH", tarv::test::TaskFolder());
  const tarv::test::RuntimeFolder folder;
  StartEcho();
  tarv::test::RunEvents(std::chrono::seconds(2));
  const tarv::test::Tables tables;
  tables.root.Release(tables.root.Initialize());
  const bool ended = tarv::test::WaitUntil([] { return tarv::test::Children().empty(); });
  return ended ? EXIT_SUCCESS : EXIT_FAILURE;
}

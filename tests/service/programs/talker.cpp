// A program that talks to a task "echo" of its own: what another application on the machine does.
// Exits with 0 when every answer was its own.

#include <cstdlib>
#include <string>

#include "kit/service.h"

namespace {

constexpr std::size_t kMessages = 200;

std::string Text(std::size_t number) {
  return "process " + std::to_string(getpid()) + " message " + std::to_string(number);
}

bool Talk(tarv::test::Client& client) {
  if (client.Start("echo") != QUARN_RESULT_SUCCESS || !client.WaitForStart()) {
    return false;
  }
  for (std::size_t i = 0; i < kMessages; ++i) {
    client.Send(Text(i));
  }
  if (!client.WaitForMessages(kMessages)) {
    return false;
  }
  for (std::size_t i = 0; i < kMessages; ++i) {
    if (client.Messages()[i] != Text(i)) {
      return false;
    }
  }
  client.Release();
  return client.WaitFor(tarv::test::Event::kReleased);
}

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  const tarv::test::Tables tables;
  tarv::test::Client client(tables, tables.root.Initialize());
  return Talk(client) ? EXIT_SUCCESS : EXIT_FAILURE;
}

// The task "word_count" in a process of its own.
#include <quarn/dispatcher.h>
#include <tarv/manager_wrapper.h>

#include <QCoreApplication>
#include <cstdlib>
#include <iostream>

#include "word_count.h"

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  const auto manager =
      tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), std::string(argv[2]));
  const auto server = manager->CreateRpcServer();
  const auto service = tarv::Service::For(server);
  service->On(word_count::kExit, [](std::int32_t status) { std::_Exit(status); });
  service->On(word_count::kComplain,
              [](const std::string& text) { std::cerr << text << std::endl; });
  const word_count::WordCount task(server, tarv::Loop::OfThisThread());
  return QCoreApplication::exec();
}

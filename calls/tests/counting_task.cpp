// The task "calls_counter": answers the same request with and without the layer, and tells how many
// memory allocations its process has made.
#include <quarn/dispatcher.h>
#include <tarv/calls/service.h>
#include <tarv/manager_wrapper.h>

#include <QCoreApplication>
#include <string>

#include "cost.h"
#include "end_to_end/allocations.h"

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  const auto manager =
      tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), std::string(argv[2]));
  const auto server = manager->CreateRpcServer();
  server->OnRequest("plain", [](const std::string&, const cw::EncodableValue& params,
                                std::unique_ptr<vorpc::IReply>&& reply) {
    reply->SendResult(cw::EncodableMap{{"n", *params.Find<std::int32_t>("n")}});
  });
  const auto service = tarv::Service::For(server);
  service->On(cost::kTyped, [](cost::Number number) { return number; });
  service->On(cost::kCountAllocations,
              [] { return static_cast<std::int64_t>(tarv::test::CountAllocations()); });
  service->Run();
  return QCoreApplication::exec();
}

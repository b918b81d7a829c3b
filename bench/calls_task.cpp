// The task "bench_calls": answers the same request with and without the layer of calls.
#include "calls_task.h"

#include <quarn/dispatcher.h>
#include <tarv/calls/service.h>
#include <tarv/manager_wrapper.h>

#include <QCoreApplication>
#include <cstdlib>
#include <string>

namespace {

using cw::EncodableMap;

// What a careful handler does by hand.
void AnswerPlain(const cw::EncodableValue& params, vorpc::IReply& reply) {
  const auto* const number = params.Find<std::int32_t>("number");
  const auto* const name = params.Find<std::string>("name");
  const auto* const list = params.Find<std::vector<std::int32_t>>("list");
  if (number == nullptr || name == nullptr || list == nullptr) {
    reply.SendError(tarv::kInvalidParams, "no parcel", {});
    return;
  }
  reply.SendResult(EncodableMap{{"number", *number}, {"name", *name}, {"list", *list}});
}

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  // The starter says where the library is: --libs-path FOLDER.
  constexpr int kFolderArgument = 2;
  if (argc <= kFolderArgument) {
    return EXIT_FAILURE;
  }
  const auto manager = tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(),
                                                    std::string(argv[kFolderArgument]));
  const auto server = manager ? manager->CreateRpcServer() : nullptr;
  const auto service = tarv::Service::For(server);
  if (!service) {
    return EXIT_FAILURE;  // the log has said why
  }
  server->OnRequest(tarv::bench::kPlain,
                    [](const std::string& /*method*/, const cw::EncodableValue& params,
                       std::unique_ptr<vorpc::IReply>&& reply) { AnswerPlain(params, *reply); });
  service->On(tarv::bench::kTyped, [](tarv::bench::Parcel parcel) { return parcel; });
  service->Run();
  return QCoreApplication::exec();
}

// The task "bench_echo": answers what the benchmark asks.
#include <quarn/dispatcher.h>
#include <tarv/manager_wrapper.h>
#include <unistd.h>

#include <QCoreApplication>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

using Reply = std::unique_ptr<vorpc::IReply>;
using cw::EncodableValue;

void Serve(vorpc::IServer& server, std::int64_t& heard, std::vector<Reply>& held) {
  server.OnRequest("echo_integer",
                   [](const std::string& /*method*/, const EncodableValue& params, Reply&& reply) {
                     reply->SendResult(params.Find("n")->AsInt64().value());
                   });
  server.OnRequest("echo_payload", [](const std::string& /*method*/, const EncodableValue& params,
                                      Reply&& reply) { reply->SendResult(params); });
  server.OnRequest("hold", [&held](const std::string& /*method*/, const EncodableValue& /*params*/,
                                   Reply&& reply) { held.push_back(std::move(reply)); });
  server.OnRequest("count_heard",
                   [&heard](const std::string& /*method*/, const EncodableValue& /*params*/,
                            Reply&& reply) { reply->SendResult(heard); });
  server.OnRequest("process", [](const std::string& /*method*/, const EncodableValue& /*params*/,
                                 Reply&& reply) { reply->SendResult(std::int64_t{::getpid()}); });
  server.OnNotify("notification",
                  [&heard](const vorpc::Message::Notification& /*notification*/) { ++heard; });
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  // The starter says where the library is: --libs-path FOLDER.
  constexpr int kFolderArgument = 2;
  if (argc <= kFolderArgument) {
    return EXIT_FAILURE;
  }
  const auto manager = tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(),
                                                    std::string(argv[kFolderArgument]));
  const auto server = manager ? manager->CreateRpcServer() : nullptr;
  if (!server) {
    return EXIT_FAILURE;  // the log has said why
  }
  std::int64_t heard = 0;
  std::vector<Reply> held;
  Serve(*server, heard, held);
  server->Run();
  return QCoreApplication::exec();
}

#include "mistakes.h"

#include <stdexcept>
#include <utility>
#include <vector>

namespace mistakes {

namespace {

using ReplyPtr = std::unique_ptr<vorpc::IReply>;

void Do(Deeds& deeds, const std::string& what) {
  if (what == "exit") {
    deeds.Exit(kExitStatus, "I give up");
  } else if (what == "crash") {
    deeds.Crash("a wild pointer");
  } else if (what == "block") {
    deeds.Block();
  } else if (what == "stop") {
    deeds.Stop();
  } else if (what == "hang up") {
    deeds.HangUp();
  } else if (what == "refuse") {
    throw tarv::RequestError(7, "there is no paper");
  } else {
    throw std::runtime_error("the handler is tired");
  }
}

// Beneath the layer, as tasks without it are.
void ServePlain(vorpc::IServer& server, const std::shared_ptr<Deeds>& deeds) {
  const auto kept = std::make_shared<std::vector<ReplyPtr>>();
  const auto keep = [kept](const std::string&, const cw::EncodableValue&, ReplyPtr&& reply) {
    kept->push_back(std::move(reply));
  };
  server.OnRequest("keep", keep);
  server.OnRequest(
      "end manager",
      [keep, deeds](const std::string& method, const cw::EncodableValue& params, ReplyPtr&& reply) {
        keep(method, params, std::move(reply));
        deeds->EndManager();
      });
  server.OnRequest("forget", [](const std::string&, const cw::EncodableValue&, ReplyPtr&& reply) {
    reply.reset();
  });
  server.OnRequest("wrong type", [](const std::string&, const cw::EncodableValue&,
                                    ReplyPtr&& reply) { reply->SendResult(5); });
}

}  // namespace

void Serve(tarv::Service& service, vorpc::IServer& server, const std::shared_ptr<Deeds>& deeds) {
  service.On(kPing, [] {});
  service.On(kEcho, [](std::string text) { return text; });
  service.On(kDo, [deeds](const std::string& what) { Do(*deeds, what); });
  service.On(kDrop, [](const tarv::Request<void>&) {});
  service.On(kHuge, [] { return ~std::uint64_t{0}; });
  service.On(kFill,
             [](std::int32_t size) { return std::string(static_cast<std::size_t>(size), 'x'); });
  ServePlain(server, deeds);
}

}  // namespace mistakes

// The task "departing": answers and ticks, and leaves at the place, in the manner and with the holder
// of its objects that the variable DEPARTING names ("OnRequest exit nobody"), or in the manner that a
// notification "leave" tells.
#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <tarv/manager_wrapper.h>
#include <veltra/host/run.h>

#include <QTimer>
#include <memory>
#include <sstream>
#include <string>

#include "departures.h"

namespace {

using tarv::torture::Depart;
using Holder =
    tarv::torture::Holder<std::unique_ptr<tarv::ManagerWrapper>, std::shared_ptr<vorpc::IServer>>;

struct Plan {
  std::string place;
  std::string manner = "exit";
  std::string holder;
};

Plan ReadPlan() {
  std::istringstream words(qEnvironmentVariable("DEPARTING").toStdString());
  Plan plan;
  words >> plan.place >> plan.manner >> plan.holder;
  return plan;
}

// Requests that are answered before it leaves.
constexpr int kSome = 30;

class Departing final : public cw::Plugin {
 public:
  explicit Departing(cw::PluginRegistrar* registrar)
      : held_(Holder::Make(tarv::ManagerWrapper::Create(registrar), plan_.holder)) {
    held_.end = held_.manager->CreateRpcServer();
    vorpc::IServer& server = *held_.end;
    server.OnConnected([this](const auto& /*error*/) { Reach("OnConnected"); });
    server.OnRequest("echo", [this](const std::string& /*method*/, const cw::EncodableValue& params,
                                    std::unique_ptr<vorpc::IReply>&& reply) {
      if (++asked_ > kSome) {
        Reach("OnRequest");
      }
      reply->SendResult(params);
      held_.end->SendNotify("tick", {});
    });
    server.OnNotify("tock", [this](const auto& /*note*/) { Reach("OnNotify"); });
    server.OnNotify("leave", [](const auto& note) { Depart(std::get<std::string>(note.params)); });
    server.Run();
  }

 private:
  void Reach(const std::string& place) {
    Holder::ExpectThere();
    if (place == plan_.place && !has_departed_) {
      has_departed_ = true;
      Depart(plan_.manner);
    }
  }

  const Plan plan_ = ReadPlan();
  Holder& held_;
  int asked_ = 0;
  bool has_departed_ = false;
};

void DepartingRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  // Never destroyed: its callbacks may come as long as the objects are there.
  static const auto departing = std::make_shared<Departing>(registrar);
  registrar->AddPlugin(departing);
}

}  // namespace

int main(int argc, char** argv) {
  return veltra::host::RunTask(argc, argv, {DepartingRegisterWithRegistrar});
}

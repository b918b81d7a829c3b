// The task "flood": once spoken to, eight of its threads send as fast as they can. At the word
// "until released" it ends its server meanwhile, and leaves with the word how its threads fared.

#include "kit/flood.h"

#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <QTimer>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

using tarv::test::Flood;

class Flooder {
 public:
  Flooder() {
    TARVProcTableLoad(&root_, sizeof(root_));
    root_.RpcServerProcTableLoad(&table_, sizeof(table_));
    manager_ = root_.Initialize();
    server_ = root_.GetRpcServer(manager_);
    TARVRpcServerSlots callbacks{};
    callbacks.size = sizeof(callbacks);
    callbacks.OnMessage = &Flooder::OnMessage;
    callbacks.user_data = this;
    table_.Run(server_, &callbacks);
  }

 private:
  static void OnMessage(void* user_data, const char* message, size_t chunk) {
    auto* const self = static_cast<Flooder*>(user_data);
    const bool until_released = std::string(message) == "until released";
    self->table_.UnlockResources(self->server_, chunk);
    // Outside the callback, which would keep the server alive.
    QTimer::singleShot(0, [self, until_released] { self->Start(until_released); });
  }

  void Start(bool until_released) {
    flood_.Start([this, server = server_] { return table_.SendMessage(server, "flood"); });
    if (until_released) {
      flood_.WaitUntilItFlows();
      root_.Release(manager_);
      std::cerr << flood_.Join() << std::endl;
      std::exit(0);
    }
  }

  TARVProcTable root_{};
  TARVRpcServerProcTable table_{};
  _TARVManagerRef* manager_ = nullptr;
  _TARVRpcServerRef* server_ = nullptr;
  Flood flood_;
};

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  const Flooder flooder;
  return QCoreApplication::exec();
}

// The task "echo": answers every text with the same text, and obeys a few commands that begin with
// '!'.

#include <signal.h>
#include <tarv/tarv_capi.h>
#include <unistd.h>

#include <QCoreApplication>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

class Echo {
 public:
  Echo() : server_(LoadTables()) {}

  void Run() {
    TARVRpcServerSlots callbacks{};
    callbacks.size = sizeof(callbacks);
    callbacks.OnMessage = &Echo::OnMessage;
    callbacks.user_data = this;
    table_.Run(server_, &callbacks);
  }

 private:
  _TARVRpcServerRef* LoadTables() {
    TARVProcTableLoad(&root_, sizeof(root_));
    root_.RpcServerProcTableLoad(&table_, sizeof(table_));
    return root_.GetRpcServer(root_.Initialize());
  }

  static void OnMessage(void* user_data, const char* message, size_t chunk) {
    auto* const self = static_cast<Echo*>(user_data);
    self->Serve(message);
    self->table_.UnlockResources(self->server_, chunk);
  }

  void Serve(const std::string& text) {
    if (text == "!arguments") {
      Send(QCoreApplication::arguments().mid(1).join('\n').toStdString());
    } else if (text == "!burst-and-die") {
      for (int i = 0; i < 100; ++i) {
        Send(std::to_string(i));
      }
      kill(getpid(), SIGKILL);
    } else if (text.rfind("!exit ", 0) == 0) {
      std::cerr << "leaving as told" << std::endl;
      std::exit(std::stoi(text.substr(6)));
    } else if (text == "!hang") {
      // Deaf to the polite signal, so that only the hard one ends it.
      signal(SIGTERM, SIG_IGN);
      Send("hanging");
    } else {
      Send(text);
    }
  }

  void Send(const std::string& text) const { table_.SendMessage(server_, text.c_str()); }

  TARVProcTable root_{};
  TARVRpcServerProcTable table_{};
  _TARVRpcServerRef* server_;
};

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  Echo echo;
  echo.Run();
  return QCoreApplication::exec();
}

// The task "server_probe": tries the server's entries in every order and sends its starter a
// report, one line "name=value" for each finding.

#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <QTimer>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/capture.h"

namespace {

struct Counts {
  int started = 0;
  int code = -1;
  std::string text = "unset";
  std::size_t chunk = 99;
  int messages = 0;
  int released = 0;
};

TARVRpcServerSlots MakeSlots(Counts& counts) {
  TARVRpcServerSlots callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.OnStarted = [](void* user_data, int code, const char* text, std::size_t chunk) {
    auto& seen = *static_cast<Counts*>(user_data);
    ++seen.started;
    seen.code = code;
    seen.text = text;
    seen.chunk = chunk;
  };
  callbacks.OnMessage = [](void* user_data, const char*, std::size_t) {
    ++static_cast<Counts*>(user_data)->messages;
  };
  callbacks.Release = [](void* user_data) { ++static_cast<Counts*>(user_data)->released; };
  callbacks.user_data = &counts;
  return callbacks;
}

bool NullMessageThrows(const TARVRpcServerProcTable& table, _TARVRpcServerRef* server) {
  try {
    table.SendMessage(server, nullptr);
  } catch (const std::logic_error&) {
    return true;
  }
  return false;
}

class Probe {
 public:
  Probe() {
    TARVProcTableLoad(&root_, sizeof(root_));
    root_.RpcServerProcTableLoad(&table_, sizeof(table_));
    manager_ = root_.Initialize();
    server_ = root_.GetRpcServer(manager_);
  }

  void TryEverything() {
    report_ << "send_before_run=" << table_.SendMessage(server_, "early") << '\n';
    TARVRpcServerSlots first = MakeSlots(first_);
    table_.Run(nullptr, &first);
    report_ << "started_by_run_of_null=" << first_.started << '\n';
    table_.Run(server_, &first);
    report_ << "started=" << first_.started << " code=" << first_.code << " text='" << first_.text
            << "' chunk=" << first_.chunk << '\n';
    TARVRpcServerSlots second = MakeSlots(second_);
    table_.Run(server_, &second);
    report_ << "second_run_started=" << second_.started << " released=" << second_.released
            << " first_started=" << first_.started << '\n';
    report_ << "unlock_zero_says='" << OutputOfUnlocking(0) << "'\n";
    report_ << "send_to_null=" << table_.SendMessage(nullptr, "lost") << '\n';
    report_ << "null_message_throws=" << NullMessageThrows(table_, server_) << '\n';
    report_ << "send_after_run=" << table_.SendMessage(server_, "late") << '\n';
    table_.SendMessage(server_, report_.str().c_str());
  }

  // Ends the server on the starter's first word and serves the rest of the channel with a new one.
  bool RunAgainOnceSpokenTo() {
    if (first_.messages == 0) {
      return false;
    }
    root_.Release(manager_);
    const bool gone = table_.SendMessage(server_, "late") == QUARN_RESULT_REFUSED;
    server_ = root_.GetRpcServer(manager_);
    TARVRpcServerSlots third = MakeSlots(third_);
    table_.Run(server_, &third);
    table_.SendMessage(server_, gone && first_.released == 1 && third_.started == 1 ? "again" : "");
    return true;
  }

 private:
  std::string OutputOfUnlocking(std::size_t chunk) const {
    const tarv::test::CaptureStdout output;
    table_.UnlockResources(server_, chunk);
    return output.GetText();
  }

  TARVProcTable root_{};
  TARVRpcServerProcTable table_{};
  _TARVManagerRef* manager_ = nullptr;
  _TARVRpcServerRef* server_ = nullptr;
  Counts first_;
  Counts second_;
  Counts third_;
  std::ostringstream report_;
};

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  Probe probe;
  probe.TryEverything();
  QTimer timer;
  QObject::connect(&timer, &QTimer::timeout, [&probe, &timer] {
    if (probe.RunAgainOnceSpokenTo()) {
      timer.stop();
    }
  });
  timer.start(1);
  return QCoreApplication::exec();
}

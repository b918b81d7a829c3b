// The task "loaded": reads slowly, never, or writes more than it may; the variable LOADED can have it
// write a line of so many bytes ("line 1000"), or one without an end ("endless").

#include <cw/plugin.h>
#include <cw/plugin_registrar.h>
#include <sys/socket.h>
#include <tarv/manager_wrapper.h>
#include <unistd.h>
#include <veltra/host/run.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>

namespace {

using Reply = std::unique_ptr<vorpc::IReply>;

[[noreturn]] void SleepForEver() {
  for (;;) {
    pause();
  }
}

bool WriteAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (written < 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

int Accept() {
  constexpr int kSocket = 3;
  return accept(kSocket, nullptr, nullptr);
}

// Without its end, the line has `size` bytes.
[[noreturn]] void WriteLine(std::size_t size) {
  const std::string begin = R"({"data":")";
  const std::string end = "\"}";
  const std::string text(size - begin.size() - end.size(), 'x');
  WriteAll(Accept(), begin + text + end + "\n");
  SleepForEver();
}

[[noreturn]] void WriteWithoutAnEnd() {
  constexpr std::size_t kPiece = std::size_t{64} << 10;
  const int connection = Accept();
  const std::string piece(kPiece, 'x');
  WriteAll(connection, R"({"data":")");
  while (WriteAll(connection, piece)) {
  }
  SleepForEver();
}

class Loaded final : public cw::Plugin {
 public:
  explicit Loaded(cw::PluginRegistrar* registrar)
      : manager_(tarv::ManagerWrapper::Create(registrar)), server_(manager_->CreateRpcServer()) {
    server_->OnRequest("echo", [](const std::string& /*method*/, const cw::EncodableValue& params,
                                  Reply&& reply) { reply->SendResult(params); });
    server_->OnRequest("count",
                       [this](const std::string& /*method*/, const cw::EncodableValue& /*params*/,
                              Reply&& reply) { reply->SendResult(count_); });
    server_->OnNotify("slowly", [this](const auto& /*notification*/) { CountSlowly(); });
    server_->OnNotify("sleep", [](const auto& /*notification*/) { SleepForEver(); });
    server_->Run();
  }

 private:
  void CountSlowly() {
    constexpr int kAtOnce = 200;
    constexpr unsigned kNapUs = 1000;
    if (++count_ % kAtOnce == 0) {
      usleep(kNapUs);
    }
  }

  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IServer> server_;
  std::int64_t count_ = 0;
};

void LoadedRegisterWithRegistrar(FlutterVeltraPluginContext* context) {
  auto* const registrar = cw::PluginRegistrarManager::GetInstance().GetRegistrarImpl(context);
  registrar->AddPlugin(std::make_shared<Loaded>(registrar));
}

}  // namespace

int main(int argc, char** argv) {
  const char* const variable = std::getenv("LOADED");
  std::istringstream words(variable != nullptr ? variable : "");
  std::string mode;
  std::size_t size = 0;
  words >> mode >> size;
  if (mode == "line") {
    WriteLine(size);
  } else if (mode == "endless") {
    WriteWithoutAnEnd();
  }
  return veltra::host::RunTask(argc, argv, {LoadedRegisterWithRegistrar});
}

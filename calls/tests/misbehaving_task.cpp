// The task "misbehaving": makes the mistake that the variable MISTAKE names.
#include <quarn/dispatcher.h>
#include <signal.h>
#include <sys/socket.h>
#include <tarv/calls/service.h>
#include <tarv/manager_wrapper.h>
#include <unistd.h>

#include <QCoreApplication>
#include <cstdlib>
#include <iostream>
#include <string>

#include "mistakes.h"

namespace {

constexpr int kSocket = 3;  // where a task finds its listening socket
constexpr int kExitStatus = 3;

[[noreturn]] void SleepForEver() {
  for (;;) {
    pause();
  }
}

int Accept() { return accept(kSocket, nullptr, nullptr); }

void ReadSome(int descriptor) {
  char buffer[4096];
  [[maybe_unused]] const auto size = read(descriptor, buffer, sizeof(buffer));
}

void Say(int descriptor, const std::string& text) {
  [[maybe_unused]] const auto size = write(descriptor, text.data(), text.size());
}

// Mistakes that are made before there is a server. Returns when `mistake` is none of them.
void MisbehaveEarly(const std::string& mistake) {
  if (mistake == "has no bound") {
    setenv("RUNTIME_MANAGER_MAX_MESSAGE", "100000000", 1);
  }
  if (mistake == "exits at start") {
    std::cerr << "there is no disk\n" << std::flush;
    std::_Exit(kExitStatus);
  }
  if (mistake == "dies at start") {
    raise(SIGKILL);
  }
  if (mistake == "never accepts") {
    SleepForEver();
  }
  if (mistake == "never answers the handshake") {
    ReadSome(Accept());
    SleepForEver();
  }
  if (mistake == "exits during the handshake") {
    ReadSome(Accept());
    std::_Exit(kExitStatus);
  }
  if (mistake == "sends garbage") {
    const int connection = Accept();
    Say(connection,
        "}{ no JSON\n{\"data\":\"no Base64!\"}\n{\"data\":\"\"}\n{\"data\":\"AAAA\"}\n");
    SleepForEver();
  }
}

// Keeps what was asked without an answer.
std::vector<std::unique_ptr<vorpc::IReply>>& Kept() {
  static std::vector<std::unique_ptr<vorpc::IReply>> kept;
  return kept;
}

void MisbehaveNow(const std::string& mistake) {
  if (mistake == "exit") {
    std::cerr << "I give up\n" << std::flush;
    std::_Exit(kExitStatus);
  }
  if (mistake == "crash") {
    std::cerr << "a wild pointer\n" << std::flush;
    signal(SIGSEGV, SIG_DFL);
    raise(SIGSEGV);
  }
  if (mistake == "block") {
    SleepForEver();
  }
  if (mistake == "stop") {
    raise(SIGSTOP);
  }
  if (mistake == "hang up") {
    for (int descriptor = kSocket; descriptor < 64; ++descriptor) {
      shutdown(descriptor, SHUT_RDWR);
    }
  }
  if (mistake == "throw") {
    throw std::runtime_error("the handler is tired");
  }
}

void Serve(tarv::Service& service, vorpc::IServer& server) {
  service.On(mistakes::kPing, [] {});
  service.On(mistakes::kEcho, [](std::string text) { return text; });
  service.On(mistakes::kDo, [](const std::string& mistake) { MisbehaveNow(mistake); });
  service.On(mistakes::kDrop, [](const tarv::Request<void>&) {});
  service.On(mistakes::kFill,
             [](std::int32_t size) { return std::string(static_cast<std::size_t>(size), 'x'); });
  // Beneath the layer, as tasks without it are.
  server.OnRequest(
      "keep", [](const std::string&, const cw::EncodableValue&,
                 std::unique_ptr<vorpc::IReply>&& reply) { Kept().push_back(std::move(reply)); });
  server.OnRequest("forget", [](const std::string&, const cw::EncodableValue&,
                                std::unique_ptr<vorpc::IReply>&& reply) { reply.reset(); });
  server.OnRequest("wrong type",
                   [](const std::string&, const cw::EncodableValue&,
                      std::unique_ptr<vorpc::IReply>&& reply) { reply->SendResult(5); });
}

}  // namespace

int main(int argc, char** argv) {
  const char* const variable = std::getenv("MISTAKE");
  const std::string mistake = variable != nullptr ? variable : "";
  MisbehaveEarly(mistake);
  const QCoreApplication application(argc, argv);
  const auto manager =
      tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), std::string(argv[2]));
  const auto server = manager->CreateRpcServer();
  const auto service = tarv::Service::For(server);
  Serve(*service, *server);
  if (mistake != "forgets Run") {
    service->Run();
  }
  return QCoreApplication::exec();
}

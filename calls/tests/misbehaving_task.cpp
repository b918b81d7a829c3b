// The task "misbehaving": makes the mistake that the variable MISTAKE names, and those that it is
// asked for.
#include <quarn/dispatcher.h>
#include <signal.h>
#include <sys/socket.h>
#include <tarv/calls/service.h>
#include <tarv/manager_wrapper.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <cstdlib>
#include <iostream>
#include <string>

#include "mistakes.h"

namespace {

constexpr int kSocket = 3;  // where a task finds its listening socket

[[noreturn]] void SleepForEver() {
  for (;;) {
    pause();
  }
}

int Accept() { return accept(kSocket, nullptr, nullptr); }

// Empty at the end.
std::string ReadLine(int descriptor) {
  std::string line;
  char next = 0;
  while (read(descriptor, &next, 1) == 1) {
    if (next == '\n') {
      return line;
    }
    line += next;
  }
  return {};
}

void Say(int descriptor, const std::string& text) {
  [[maybe_unused]] const auto size = write(descriptor, text.data(), text.size());
}

[[noreturn]] void Exit(int status, const std::string& last_words) {
  std::cerr << last_words << '\n' << std::flush;
  std::_Exit(status);
}

// Answers every request with an error, as no server of this library does.
[[noreturn]] void RefuseAll() {
  const int connection = Accept();
  for (std::string line = ReadLine(connection); !line.empty(); line = ReadLine(connection)) {
    const QString text =
        QJsonDocument::fromJson(QByteArray::fromStdString(line)).object()["data"].toString();
    const auto request = vorpc::Message::FromBase64(text.toStdString());
    const auto refusal = vorpc::Message::CreateError(request.GetRequest()->id, 42, "not today", {});
    Say(connection, R"({"data":")" + refusal.ToBase64() + "\"}\n");
  }
  SleepForEver();
}

// Mistakes that are made before there is a server. Returns when `mistake` is none of them.
void MisbehaveEarly(const std::string& mistake) {
  if (mistake == mistakes::kHasNoBound) {
    setenv("RUNTIME_MANAGER_MAX_MESSAGE", "100000000", 1);
  } else if (mistake == mistakes::kExitsAtStart) {
    Exit(mistakes::kExitStatus, "there is no disk");
  } else if (mistake == mistakes::kDiesAtStart) {
    raise(SIGKILL);
  } else if (mistake == mistakes::kNeverAccepts) {
    SleepForEver();
  } else if (mistake == mistakes::kNeverAnswers) {
    ReadLine(Accept());
    SleepForEver();
  } else if (mistake == mistakes::kExitsInHandshake) {
    ReadLine(Accept());
    std::_Exit(mistakes::kExitStatus);
  } else if (mistake == mistakes::kSendsGarbage) {
    Say(Accept(), "}{ no JSON\n{\"data\":\"no Base64!\"}\n{\"data\":\"\"}\n{\"data\":\"AAAA\"}\n");
    SleepForEver();
  } else if (mistake == mistakes::kRefuses) {
    RefuseAll();
  }
}

class RealDeeds final : public mistakes::Deeds {
 public:
  explicit RealDeeds(std::unique_ptr<tarv::ManagerWrapper>& manager) : manager_(manager) {}

  void Exit(int status, const std::string& last_words) override { ::Exit(status, last_words); }
  void Crash(const std::string& last_words) override {
    std::cerr << last_words << '\n' << std::flush;
    signal(SIGSEGV, SIG_DFL);
    raise(SIGSEGV);
  }
  void Block() override { SleepForEver(); }
  void Stop() override { raise(SIGSTOP); }
  void HangUp() override {
    constexpr int kMostDescriptors = 64;
    for (int descriptor = kSocket; descriptor < kMostDescriptors; ++descriptor) {
      shutdown(descriptor, SHUT_RDWR);
    }
  }
  void EndManager() override { manager_.reset(); }

 private:
  std::unique_ptr<tarv::ManagerWrapper>& manager_;
};

}  // namespace

int main(int argc, char** argv) {
  const char* const variable = std::getenv("MISTAKE");
  const std::string mistake = variable != nullptr ? variable : "";
  MisbehaveEarly(mistake);
  const QCoreApplication application(argc, argv);
  auto manager =
      tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), std::string(argv[2]));
  const auto server = manager->CreateRpcServer();
  const auto service = tarv::Service::For(server);
  mistakes::Serve(*service, *server, std::make_shared<RealDeeds>(manager));
  if (mistake != mistakes::kForgetsRun) {
    service->Run();
  }
  return QCoreApplication::exec();
}

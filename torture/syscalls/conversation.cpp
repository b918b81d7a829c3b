// An application that talks to its task while system calls fail: start, handshake, requests,
// notifications both ways, an intent of its own, stop, and the same again.
//
// It prints what came of each step, a line each, and ends with 0 when every request ended once, by
// an answer or an error, in good time, and nothing of it is left behind.

#include <cw/encodable_value.h>
#include <tarv/manager_wrapper.h>
#include <vorpc/client.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <QTimer>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kit/surroundings.h"

namespace tarv::torture {
namespace {

using std::chrono::milliseconds;
using OptionalError = std::optional<vorpc::Message::Error>;

// Longer than whatever gives up by itself takes: 5 s for a queue that stays full.
constexpr milliseconds kPatience(15000);

bool failed = false;

void Say(const std::string& step, const std::string& outcome) {
  std::printf("%s: %s\n", step.c_str(), outcome.c_str());
  std::fflush(stdout);
}

void Fail(const std::string& step, const std::string& outcome) {
  failed = true;
  Say("WRONG " + step, outcome);
}

bool WaitUntil(const std::function<bool()>& condition, milliseconds limit = kPatience) {
  const QDeadlineTimer deadline(limit);
  while (!condition()) {
    if (deadline.hasExpired()) {
      return false;
    }
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  }
  return true;
}

class Conversation {
 public:
  explicit Conversation(std::string name) : name_(std::move(name)) {}
  // Whether everything went well.
  bool Play();

 private:
  void Start();
  void Ask(int number);
  void Hear();
  void OpenUri();
  void Stop();
  std::string Step(const char* what) const { return name_ + ' ' + what; }
  void Tell(const char* what, const OptionalError& error);

  const std::string name_;
  std::unique_ptr<ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IClient> client_;
  int said_ = 0;
  bool is_good_ = true;
  bool has_ended_ = false;
};

void Conversation::Tell(const char* what, const OptionalError& error) {
  is_good_ = is_good_ && !error;
  Say(Step(what), error ? "error " + std::to_string(error->code) + " " + error->message : "done");
  if (error && error->message.empty()) {
    Fail(Step(what), "an error without a text");
  }
}

void Conversation::Start() {
  int told = 0;
  client_ = manager_->CreateIpcClient("torture_calls_task");
  if (client_ == nullptr) {
    is_good_ = false;
    Say(Step("start"), "refused");
    return;
  }
  client_->OnConnected([&](const OptionalError& error) {
    ++told;
    has_ended_ = error.has_value();
    Tell("start", error);
  });
  client_->OnDisconnected([this](const OptionalError& error) {
    has_ended_ = true;
    Tell("end", error);
  });
  client_->OnNotify("said", [this](const auto& /*notification*/) { ++said_; });
  client_->Run();
  if (!WaitUntil([&] { return told > 0; })) {
    Fail(Step("start"), "no end of it");
  }
}

void Conversation::Ask(int number) {
  auto told = std::make_shared<int>(0);
  client_->SendRequest("echo", number,
                       [this, told, number](const vorpc::Message::Response& response) {
                         ++*told;
                         if (const auto* const error = response.GetError()) {
                           Tell("request", *error);
                         } else if (response.GetResult()->AsInt64() != number) {
                           Fail(Step("request"), "another one's answer");
                         }
                       });
  if (!WaitUntil([&] { return *told > 0; })) {
    Fail(Step("request"), "no end of it");
  }
  if (*told > 1) {
    Fail(Step("request"), "answered twice");
  }
}

void Conversation::Hear() {
  client_->SendNotify("say", 1);
  if (!WaitUntil([this] { return said_ > 0 || has_ended_; })) {
    Fail(Step("notification"), "no end of it");
  }
}

void Conversation::OpenUri() {
  const auto intents = manager_->GetIntentManager();
  int told = 0;
  bool opened = false;
  intents->OpenUri("https://example.org/", [&](bool success) {
    ++told;
    opened = success;
  });
  if (!WaitUntil([&] { return told > 0; })) {
    Fail(Step("intent"), "no end of it");
  }
  is_good_ = is_good_ && opened;
  Say(Step("intent"), opened ? "done" : "failed");
}

void Conversation::Stop() {
  client_.reset();
  if (!WaitUntil([] { return test::Children().empty(); })) {
    Fail(Step("stop"), "a task lives on");
  }
  manager_.reset();
}

bool Conversation::Play() {
  manager_ = ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LIBRARY_FOLDER);
  if (manager_ == nullptr) {
    Say(Step("manager"), "refused");
    return false;
  }
  Start();
  for (int number = 0; client_ != nullptr && number < 3; ++number) {
    Ask(number);
  }
  if (client_ != nullptr) {
    Hear();
  }
  OpenUri();
  Stop();
  return is_good_;
}

}  // namespace
}  // namespace tarv::torture

int main(int argc, char** argv) {
  using namespace tarv;
  QCoreApplication application(argc, argv);
  QTimer wake;
  wake.start(5);
  const std::size_t descriptors = test::CountDescriptors();
  const bool first = torture::Conversation("first").Play();
  const bool second = torture::Conversation("second").Play();
  const bool third = torture::Conversation("third").Play();
  torture::Say("good", std::to_string(first) + std::to_string(second) + std::to_string(third));
  const std::size_t left = test::CountDescriptors();
  if (left > descriptors + 1) {
    torture::Fail("descriptors", std::to_string(left - descriptors) + " are left");
  }
  return torture::failed ? 1 : 0;
}

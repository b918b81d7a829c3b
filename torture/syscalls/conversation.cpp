// An application that talks to its task while system calls fail: start, handshake, requests,
// notifications both ways, an intent of the task's, a URI, stop, and the same again, the third time
// over the relay that faults stand in. A last task is ended by the end of the application. With
// TORTURE_DEATH=1 each conversation first starts a task that cannot run, and then loses its own to
// SIGKILL, and starts it again. Before the third conversation the file FAIL_UNTIL is made, if that
// variable is there: whatever failed until then does so no more.
//
// It prints what came of each step, a line each, and ends with 0 when every request ended once, by
// an answer or an error, in good time, and nothing of it is left behind.

#include <RuntimeManager/IntentsInvoker.h>
#include <cw/encodable_value.h>
#include <signal.h>
#include <tarv/manager_wrapper.h>
#include <vorpc/client.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <QTimer>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kit/surroundings.h"
#include "support/process_state.h"

namespace tarv::torture {
namespace {

using std::chrono::milliseconds;
using OptionalError = std::optional<vorpc::Message::Error>;

// Longer than whatever gives up by itself takes: 5 s for a queue that stays full.
constexpr milliseconds kPatience(15000);
constexpr milliseconds kLeftoverPatience(2000);

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

// Children that still run, or that could have been reaped.
bool HasChildren() {
  const QByteArray failing = qgetenv("FAIL_CALL");
  const bool reaps = failing != "waitid" || qgetenv("FAIL_LASTS") != "1";
  const auto children = test::Children();
  return std::any_of(children.begin(), children.end(),
                     [reaps](int child) { return reaps || test::StateOf(child) != 'Z'; });
}

void SignalTasks(int signal) {
  for (const int child : test::Children()) {
    if (test::StateOf(child) != 'Z') {
      kill(child, signal);
    }
  }
}

class Conversation {
 public:
  explicit Conversation(std::string name) : name_(std::move(name)) {}
  // Whether everything went well.
  bool Play();
  // The task runs, if all goes well.
  void Begin();

 private:
  bool MakeManager();
  void Start();
  void StartInVain();
  void LoseTask();
  void Ask(int number);
  void Hear();
  void Invoke();
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
  bool is_to_end_ = false;  // its end is no failure
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
    if (!is_to_end_) {
      Tell("end", error);
    }
  });
  client_->OnNotify("said", [this](const auto& /*notification*/) { ++said_; });
  client_->Run();
  if (!WaitUntil([&] { return told > 0; })) {
    Fail(Step("start"), "no end of it");
  }
}

// What runs it is not there.
void Conversation::StartInVain() {
  const auto told = std::make_shared<int>(0);
  const auto client = manager_->CreateIpcClient("torture_calls_cannot_run");
  if (client == nullptr) {
    return;
  }
  client->OnConnected([this, told](const OptionalError& error) {
    ++*told;
    if (!error || error->message.empty()) {
      Fail(Step("start in vain"), "no error, or one without a text");
    }
  });
  client->Run();
  if (!WaitUntil([&] { return *told > 0; })) {
    Fail(Step("start in vain"), "no end of it");
  }
}

// It dies with a request that it has not answered.
void Conversation::LoseTask() {
  auto told = std::make_shared<int>(0);
  is_to_end_ = true;
  SignalTasks(SIGSTOP);
  client_->SendRequest("echo", 0,
                       [told](const vorpc::Message::Response& /*response*/) { ++*told; });
  SignalTasks(SIGKILL);
  if (!WaitUntil([&] { return *told > 0 && has_ended_; })) {
    Fail(Step("death"), "no end of it");
  }
  client_.reset();
  QCoreApplication::processEvents();
  if (*told > 1) {
    Fail(Step("request at the death"), "ended twice");
  }
  is_to_end_ = has_ended_ = false;
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

void Conversation::Invoke() {
  RuntimeManager::IntentsInvoker invoker;
  int told = 0;
  RuntimeManager::Error failure;
  QObject::connect(&invoker, &RuntimeManager::IntentsInvoker::replyReceived, &invoker,
                   [&](const QJsonObject& /*reply*/, const RuntimeManager::Error& error) {
                     ++told;
                     failure = error;
                   });
  invoker.invoke("torture-calls", {}, {{"number", 1}});
  if (!WaitUntil([&] { return told > 0; })) {
    Fail(Step("invocation"), "no end of it");
  }
  if (failure.isError() && failure.message().isEmpty()) {
    Fail(Step("invocation"), "an error without a text");
  }
  is_good_ = is_good_ && !failure.isError();
  Say(Step("invocation"),
      failure.isError() ? "error " + failure.message().toStdString() : std::string("done"));
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
  if (!WaitUntil([] { return !HasChildren(); })) {
    Fail(Step("stop"), "a task lives on");
  }
  manager_.reset();
}

bool Conversation::MakeManager() {
  manager_ = ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LIBRARY_FOLDER);
  if (manager_ == nullptr) {
    Say(Step("manager"), "refused");
  }
  return manager_ != nullptr;
}

bool Conversation::Play() {
  if (!MakeManager()) {
    return false;
  }
  const bool is_to_die = qEnvironmentVariableIsSet("TORTURE_DEATH");
  if (is_to_die) {
    StartInVain();
  }
  Start();
  if (is_to_die && client_ != nullptr && !has_ended_) {
    LoseTask();
    Start();
  }
  for (int number = 0; client_ != nullptr && number < 3; ++number) {
    Ask(number);
  }
  if (client_ != nullptr) {
    Hear();
    Invoke();
  }
  OpenUri();
  Stop();
  return is_good_;
}

void Conversation::Begin() {
  if (MakeManager()) {
    Start();
  }
}

void EndTheCause() {
  const QByteArray path = qgetenv("FAIL_UNTIL");
  if (!path.isEmpty()) {
    std::ofstream(path.constData()).close();
  }
}

bool PlayOverARelay() {
  const test::ScopedVariable faults("RUNTIME_MANAGER_FAULTS",
                                    "torture_calls_task: delay 1ms; seed 1");
  return Conversation("third").Play();
}

// What this process has open, by what it is.
std::vector<std::string> Descriptors() {
  std::vector<std::string> found;
  std::error_code gone;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    found.push_back(std::filesystem::read_symlink(entry, gone).string());
  }
  return found;
}

// The record is kept open until the end of the process.
void ExpectDescriptors(const std::vector<std::string>& before) {
  const auto is_enough = [&before] { return Descriptors().size() <= before.size() + 1; };
  if (WaitUntil(is_enough, kLeftoverPatience)) {
    return;
  }
  for (const std::string& left : Descriptors()) {
    Say("open", left);
  }
  Fail("descriptors", std::to_string(Descriptors().size() - before.size()) + " are left");
}

// Nobody runs an event loop for the last task any more.
void EndWith(std::unique_ptr<QCoreApplication> application) {
  Conversation last("last");
  last.Begin();
  application.reset();
  if (HasChildren()) {
    Fail("end of the application", "a task lives on");
  }
}

}  // namespace
}  // namespace tarv::torture

int main(int argc, char** argv) {
  using namespace tarv;
  auto application = std::make_unique<QCoreApplication>(argc, argv);
  QTimer wake;
  wake.start(5);
  const auto before = torture::Descriptors();
  const bool first = torture::Conversation("first").Play();
  const bool second = torture::Conversation("second").Play();
  torture::EndTheCause();
  const bool third = torture::PlayOverARelay();
  torture::Say("good", std::to_string(first) + std::to_string(second) + std::to_string(third));
  torture::ExpectDescriptors(before);
  torture::EndWith(std::move(application));
  return torture::failed ? 1 : 0;
}

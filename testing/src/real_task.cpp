#include <dlfcn.h>
#include <quarn/dispatcher.h>
#include <signal.h>
#include <sys/wait.h>
#include <tarv/manager_wrapper.h>
#include <tarv/testing/failure.h>
#include <tarv/testing/real_task.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QEvent>
#include <QtCore/QEventLoop>
#include <QtCore/QTimer>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "record.h"
#include "surroundings.h"
#include "task_end.h"

namespace tarv::testing {
namespace details {
namespace {

using Clock = std::chrono::steady_clock;

// How often a condition that no event announces is looked at.
constexpr int kLookMs = 5;
// A task gets SIGTERM when its client goes, and SIGKILL after a grace time of the platform's.
constexpr std::chrono::seconds kGrace{2};

std::atomic<bool> one_lives{false};

int argument_count = 1;
char program_name[] = "tarv-testing";
char* arguments[] = {program_name, nullptr};

std::filesystem::path LibraryFolder() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&TARVProcTableLoad), &info) == 0) {
    throw std::runtime_error("tarv::testing: libtarv.so is not found among the loaded libraries");
  }
  return std::filesystem::absolute(info.dli_fname).parent_path();
}

// The record of this process and of all its tasks. The workstation opens it once in a process.
std::filesystem::path FindRecord() {
  const char* const users = std::getenv("RUNTIME_MANAGER_TRACE");
  if (users != nullptr && *users != '\0') {
    return users;
  }
  static const PrivateFolder folder;
  return folder.GetPath() / "record";
}

std::size_t SizeOf(const std::filesystem::path& file) {
  std::error_code none;
  const auto size = std::filesystem::file_size(file, none);
  return none ? 0 : static_cast<std::size_t>(size);
}

void RunEvents() {
  QCoreApplication::processEvents();
  QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

}  // namespace

// That there is one of a kind.
class OneAtATime {
 public:
  OneAtATime() {
    if (one_lives.exchange(true)) {
      throw std::logic_error(
          "tarv::testing: there is a RealTask already: finish and destroy it first, for they share "
          "the environment of this process");
    }
  }
  ~OneAtATime() { one_lives = false; }
  OneAtATime(const OneAtATime&) = delete;
  OneAtATime& operator=(const OneAtATime&) = delete;
};

// All that lives as long as the task, in the order in which it has to be there.
class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(const std::filesystem::path& program, const RealTaskOptions& options);

  // Starts the task; the client and the process are then its.
  void Start();
  // Whether the process has ended; keeps how. Once it is reaped, what was seen before holds.
  bool LookAtProcess();
  std::vector<std::string> FindLeftovers() const;
  std::string ReadTranscript() const {
    return TranscriptOf(ReadFile(record_, record_begin_), name_, process);
  }
  std::filesystem::path GetErrors() const { return folder.GetPath() / "stderr"; }

 private:
  const OneAtATime one_;
  ScopedVariables variables_;
  std::unique_ptr<QCoreApplication> application_;

 public:
  const PrivateFolder folder;
  std::unique_ptr<ManagerWrapper> manager;
  std::shared_ptr<vorpc::IClient> client;
  int process = 0;
  std::optional<TaskExit> exit;
  bool is_finished = false;

 private:
  void HearOfTheEnd();
  void SetVariables(const std::filesystem::path& program, const RealTaskOptions& options);

  const std::string name_;
  const std::filesystem::path record_ = FindRecord();
  const std::size_t record_begin_ = SizeOf(record_);
  int starts_ = 0;
  std::set<int> children_before_;
  std::map<int, std::string> descriptors_before_;
};

Session::Session(const std::filesystem::path& program, const RealTaskOptions& options)
    : name_(program.filename().string()) {
  if (QCoreApplication::instance() == nullptr) {
    application_ = std::make_unique<QCoreApplication>(argument_count, arguments);
  }
  SetVariables(program, options);
  manager = ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LibraryFolder());
  if (!manager) {
    throw std::runtime_error("tarv::testing: libtarv.so cannot be used; the log says why");
  }
  RunEvents();  // the event loop opens descriptors of its own
  descriptors_before_ = OpenDescriptors();
  children_before_ = Children();
}

void Session::Start() {
  const std::set<int> children = Children();
  process = 0;
  exit.reset();
  client = manager->CreateIpcClient(name_);
  HearOfTheEnd();
  for (const int child : Children()) {
    process = children.count(child) == 0 ? child : process;
  }
}

// The platform may reap the process before this can look at it.
void Session::HearOfTheEnd() {
  if (!client) {
    return;
  }
  // Others may hold the client longer.
  const auto hear = [weak = weak_from_this(),
                     start = ++starts_](const std::optional<vorpc::Message::Error>& error) {
    const auto self = weak.lock();
    if (self && error && !self->exit && self->starts_ == start) {
      self->exit = ExitIn(error->message);
    }
  };
  client->OnConnected(hear);
  client->OnDisconnected(hear);
}

void Session::SetVariables(const std::filesystem::path& program, const RealTaskOptions& options) {
  const auto tasks = std::filesystem::absolute(program).parent_path();
  variables_.Set("XDG_RUNTIME_DIR", folder.GetPath().string());
  variables_.Set("RUNTIME_MANAGER_TASK_PATH", tasks.string());
  variables_.Set("RUNTIME_MANAGER_TRACE", record_.string());
  variables_.Set("RUNTIME_MANAGER_STDERR", GetErrors().string());
  variables_.Set("RUNTIME_MANAGER_FAULTS", options.faults);
  for (const auto& [name, value] : options.variables) {
    variables_.Set(name, value);
  }
}

bool Session::LookAtProcess() {
  if (exit || process == 0) {
    return true;
  }
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
    return errno == ECHILD;
  }
  if (info.si_pid == 0) {
    return false;
  }
  exit.emplace();
  (info.si_code == CLD_EXITED ? exit->status : exit->signal) = info.si_status;
  return true;
}

std::vector<std::string> Session::FindLeftovers() const {
  std::vector<std::string> lines = NewChildren(children_before_);
  for (const std::string& socket : SocketsBelow(folder.GetPath())) {
    lines.push_back(socket);
  }
  for (const std::string& descriptor : NewDescriptors(descriptors_before_)) {
    // The record stays open until the end of the process.
    if (descriptor.find(record_.string()) == std::string::npos) {
      lines.push_back(descriptor);
    }
  }
  return lines;
}

}  // namespace details

RealTask::RealTask(const std::filesystem::path& program, const RealTaskOptions& options)
    : options_(options),
      name_(program.filename().string()),
      session_(std::make_shared<details::Session>(program, options)) {
  session_->Start();
}

RealTask::~RealTask() {
  if (session_->is_finished) {
    return;
  }
  for (const std::string& line : Finish()) {
    ReportFailure("the test of the task '" + name_ + "' leaves behind: " + line);
  }
}

std::shared_ptr<vorpc::IClient> RealTask::GetClient() { return session_->client; }

std::shared_ptr<vorpc::IClient> RealTask::StartAgain() {
  session_->Start();
  return session_->client;
}

std::shared_ptr<Loop> RealTask::GetLoop() { return Loop::OfThisThread(); }

bool RealTask::RunUntil(const std::function<bool()>& condition, Duration limit) {
  const auto until = details::Clock::now() + limit;
  QTimer look;
  look.start(details::kLookMs);
  for (;;) {
    // Before the events of its end, which take it away.
    session_->LookAtProcess();
    details::RunEvents();
    if (condition()) {
      return true;
    }
    if (details::Clock::now() >= until) {
      return false;
    }
    session_->LookAtProcess();
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
  }
}

void RealTask::Pump() { Advance(options_.patience); }

void RealTask::Advance(Duration duration) {
  RunUntil([this] { return !HasOpenCalls(); }, std::min(duration, options_.patience));
}

bool RealTask::WaitUntil(const std::function<bool()>& condition) {
  return RunUntil(condition, options_.patience);
}

int RealTask::GetProcess() const { return session_->process; }

// The process is a child that nobody has reaped while it can be looked at.
void RealTask::KillTask(int signal) {
  if (session_->process != 0 && !session_->LookAtProcess()) {
    ::kill(session_->process, signal);
  }
}

void RealTask::EndManager() { session_->manager.reset(); }

std::optional<TaskExit> RealTask::WaitForExit() {
  if (!session_->is_finished) {
    WaitUntil([this] { return session_->LookAtProcess(); });
    // The news of it may come a moment later.
    RunUntil([this] { return session_->exit.has_value(); },
             std::min<Duration>(options_.patience, std::chrono::seconds(1)));
  }
  return session_->exit;
}

std::string RealTask::GetStandardError() const { return details::ReadFile(session_->GetErrors()); }

std::vector<std::string> RealTask::Finish() {
  DropCaller();
  session_->client.reset();
  // A client that has not started yet ends with its manager.
  session_->manager.reset();
  // How it ends can be seen until the event loop reaps it.
  const auto until = details::Clock::now() + details::kGrace;
  while (!session_->LookAtProcess() && details::Clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  session_->is_finished = true;
  WaitUntil([this] { return session_->FindLeftovers().empty(); });
  return session_->FindLeftovers();
}

std::string RealTask::GetTranscript() const { return session_->ReadTranscript(); }

std::unique_ptr<Caller> RealTask::MakeCaller() {
  return std::make_unique<Caller>(
      session_->client, GetLoop(),
      CallerOptions().TaskName(name_).ConnectTimeout(options_.connect_timeout));
}

World::TellTranscript RealTask::GetTranscriptTeller() const {
  return [weak = std::weak_ptr(session_)] {
    const auto session = weak.lock();
    return session ? session->ReadTranscript() : "(the task is gone)";
  };
}

}  // namespace tarv::testing

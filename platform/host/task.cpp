#include <RuntimeManager/Task.h>
#include <quarn/internal/attempt_all.h>

#include <QtCore/QPointer>
#include <utility>
#include <vector>

#include "child_process.h"
#include "fault_relay.h"
#include "socket_folder.h"
#include "socket_name.h"
#include "support.h"
#include "task_end.h"
#include "task_registry.h"
#include "task_request.h"
#include "want_of_memory.h"

namespace RuntimeManager {

using host::Attempt;
using host::ChildEnd;
using host::ChildProcess;
using host::FaultRelay;
using host::SocketFile;
using host::SocketFolder;
using host::TaskRegistry;
using host::UniqueFd;

class Task::Private {
 public:
  enum class State { kIdle, kStarting, kRunning, kStopping, kEnded };

  Private(Task* task, QString task_name) : owner(task), name(std::move(task_name)) {}
  ~Private();
  Private(const Private&) = delete;
  Private& operator=(const Private&) = delete;

  Error Start();
  Error Make();
  void Undo();
  Error AddFaults(UniqueFd* connection) const;
  UniqueFd MakeSocket(Error* error);
  Error Spawn(const host::SpawnRequest& request);
  void ForgetSocket();
  bool IsOver() const {
    return state == State::kEnded || (process != nullptr && process->IsEventLoopGone());
  }

  void OnRunning();
  void OnEnded(const ChildEnd& end);
  void OnNeverRan(const Error& error);
  void OnRanAndEnded(const ChildEnd& end);
  void DrainSocket();
  void TellFinished(const Error& why);
  void CompleteStart(const Error& error);
  void CompleteStops(const Error& error);
  void CompleteLater(Completion completion, const Error& error) const;
  QString Title() const { return host::TaskTitle(name, process->GetPid()); }

  Task* const owner;
  // Qt makes what QPointers share with the first one: here, where memory may still run out.
  const QPointer<Task> first_pointer{owner};
  const QString name;
  bool has_socket = false;
  QStringList arguments;
  QByteArray program;  // its path
  QString socket_path;
  SocketFile socket_file;
  std::shared_ptr<FaultRelay> faults;  // null when there are none
  std::shared_ptr<ChildProcess> process;
  State state = State::kIdle;
  Completion start_completion;
  std::vector<Completion> stop_completions;
};

Task::Private::~Private() { Undo(); }

void Task::Private::ForgetSocket() {
  TaskRegistry::Get().RemoveTask(socket_path);
  socket_file.Remove();
}

Error Task::Private::AddFaults(UniqueFd* connection) const {
  const int error_number = faults == nullptr ? 0 : faults->Interpose(connection);
  return error_number == 0
             ? Error()
             : host::SystemError(Error::kStartFailed,
                                 QString("the faults of the task '%1' cannot be made").arg(name),
                                 error_number);
}

UniqueFd Task::Private::MakeSocket(Error* error) {
  if (!has_socket) {
    return {};
  }
  const SocketFolder folder = SocketFolder::OpenTasks(error);
  if (!folder.IsValid()) {
    return {};
  }
  const QString file = host::UniqueSocketName();
  // The file is known before it exists, so that it goes with its owner whatever follows.
  socket_path = folder.PathOf(file);
  socket_file = SocketFile(socket_path);
  UniqueFd first;
  UniqueFd socket = folder.ListenConnected(file, &first, error);
  if (socket.IsValid()) {
    *error = AddFaults(&first);
  }
  if (error->isError()) {
    ForgetSocket();
    socket_path.clear();
    return {};
  }
  TaskRegistry::Get().AddTask(socket_path, name, std::move(first));
  return socket;
}

// Leaves nothing behind when memory runs out on the way.
Error Task::Private::Start() {
  try {
    return Make();
  } catch (const std::bad_alloc&) {
    Undo();
    throw;
  }
}

void Task::Private::Undo() {
  state = State::kEnded;
  ForgetSocket();
  if (process != nullptr) {
    process->Abandon();
  }
}

Error Task::Private::Make() {
  host::SpawnRequest request;
  Error error = host::MakeTaskRequest(name, arguments, &request);
  if (!error.isError()) {
    faults = FaultRelay::ForStart(name, &error);
  }
  if (error.isError()) {
    return error;
  }
  program = request.program;
  const UniqueFd socket = MakeSocket(&error);
  if (error.isError()) {
    return error;
  }
  request.listen_socket = socket.Get();
  error = Spawn(request);
  if (error.isError()) {
    ForgetSocket();
  }
  return error;
}

Error Task::Private::Spawn(const host::SpawnRequest& request) {
  ChildProcess::Callbacks callbacks;
  callbacks.on_running = [this] { OnRunning(); };
  callbacks.on_ended = [this](const ChildEnd& end) { OnEnded(end); };
  const int error_number = ChildProcess::Start(request, std::move(callbacks), &process);
  if (error_number != 0) {
    return host::SystemError(Error::kStartFailed,
                             QString("the task '%1' cannot be started").arg(name), error_number);
  }
  if (faults != nullptr) {
    faults->SetSignal([weak = std::weak_ptr(process)](int signal) {
      if (const auto running = weak.lock()) {
        running->Signal(signal);
      }
    });
  }
  return {};
}

void Task::Private::CompleteLater(Completion completion, const Error& error) const {
  if (!completion) {
    return;
  }
  host::Post(owner, [completion = std::move(completion), error] { completion(error); });
}

void Task::Private::CompleteStart(const Error& error) {
  const Completion completion = std::exchange(start_completion, nullptr);
  if (completion) {
    completion(error);
  }
}

void Task::Private::CompleteStops(const Error& error) {
  const QPointer<Task> alive(owner);
  // A completion may ask for another stop, which completes by itself.
  const auto completions = std::exchange(stop_completions, {});
  for (const Completion& completion : completions) {
    if (alive.isNull()) {
      return;
    }
    if (completion) {
      completion(error);
    }
  }
}

void Task::Private::OnRunning() {
  if (state == State::kStarting) {
    state = State::kRunning;
    CompleteStart({});
    return;
  }
  CompleteStart({Error::kWrongState, Title() + " was stopped before it had started"});
}

void Task::Private::OnEnded(const ChildEnd& end) {
  if (end.exec_error == 0) {
    OnRanAndEnded(end);
    return;
  }
  OnNeverRan(host::WhyNeverRan(name, program, end));
}

void Task::Private::OnNeverRan(const Error& error) {
  const QPointer<Task> alive(owner);
  const QString path = socket_path;
  state = State::kEnded;
  socket_file.Remove();
  quarn::details::AttemptAll(
      [this, &error] { CompleteStart(error); },
      [this, &alive] {
        if (!alive.isNull()) {
          CompleteStops({});
        }
      },
      [&path, &error] { Attempt([&path, &error] { TaskRegistry::Get().TellEnded(path, error); }); },
      [&path] { TaskRegistry::Get().RemoveTask(path); });
}

// Handlers may destroy the Task meanwhile.
void Task::Private::DrainSocket() {
  if (!has_socket) {
    return;
  }
  const auto relay = faults;
  const QString path = socket_path;
  bool has_more = true;
  while (std::exchange(has_more, false)) {
    has_more = relay != nullptr && relay->DrainTask();
    TaskRegistry::Get().DrainTask(path);
  }
}

void Task::Private::TellFinished(const Error& why) {
  const bool unasked = state != State::kStopping;
  state = State::kEnded;
  socket_file.Remove();
  if (unasked) {
    Q_EMIT owner->finished(why);
  }
}

void Task::Private::OnRanAndEnded(const ChildEnd& end) {
  const QPointer<Task> alive(owner);
  const QString path = socket_path;
  const Error why = host::WhyEnded(name, process->GetPid(), end);
  if (start_completion) {
    OnRunning();
  }
  const auto while_alive = [this, &alive](auto&& step) {
    return [this, &alive, step] {
      if (!alive.isNull()) {
        step(*this);
      }
    };
  };
  // Whatever the task sent before it ended comes before the news of its end. What a handler throws
  // goes on to the event loop, but keeps nobody from that news. Until the last step, messaging that
  // is made in one of the callbacks takes the first connection, and gets what the task has sent.
  quarn::details::AttemptAll(
      while_alive([](Private& task) { task.DrainSocket(); }),
      while_alive([&why](Private& task) { task.TellFinished(why); }),
      while_alive([](Private& task) { task.CompleteStops({}); }),
      [&path, &why] { Attempt([&path, &why] { TaskRegistry::Get().TellEnded(path, why); }); },
      [&path] { TaskRegistry::Get().RemoveTask(path); });
}

Task::Task(const QString& name, QObject* parent)
    : QObject(parent), d_(std::make_unique<Private>(this, name)) {
  qRegisterMetaType<RuntimeManager::Error>();
}

Task::~Task() = default;

void Task::withIpcSocket(bool enabled) {
  if (d_->state == Private::State::kIdle) {
    d_->has_socket = enabled;
  }
}

void Task::withArguments(const QStringList& arguments) { d_->arguments = arguments; }

void Task::start(Completion completion) {
  if (d_->state != Private::State::kIdle) {
    d_->CompleteLater(
        std::move(completion),
        {Error::kWrongState,
         QString("the task '%1' has been started before: make a new Task").arg(d_->name)});
    return;
  }
  d_->state = Private::State::kStarting;
  const Error error = d_->Start();
  if (!error.isError()) {
    d_->start_completion = std::move(completion);
    return;
  }
  d_->state = Private::State::kEnded;
  d_->CompleteLater(std::move(completion), error);
}

void Task::stop(StopFlags flags, Completion completion) {
  if (d_->state == Private::State::kIdle) {
    d_->CompleteLater(
        std::move(completion),
        {Error::kWrongState,
         QString("the task '%1' cannot be stopped: it was never started").arg(d_->name)});
    return;
  }
  if (d_->IsOver()) {
    d_->CompleteLater(std::move(completion), {});
    return;
  }
  d_->stop_completions.reserve(d_->stop_completions.size() + 1);
  const int error_number = d_->process->Terminate(flags.testFlag(StopFlag::Kill));
  if (error_number != 0) {
    d_->CompleteLater(
        std::move(completion),
        host::SystemError(Error::kStopFailed, d_->Title() + " cannot be stopped", error_number));
    return;
  }
  d_->state = Private::State::kStopping;
  d_->stop_completions.push_back(std::move(completion));
}

QString Task::socketPath() const { return d_->socket_path; }

}  // namespace RuntimeManager

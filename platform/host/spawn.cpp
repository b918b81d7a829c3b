#include "spawn.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <QtCore/QFile>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <utility>
#include <vector>

#include "activation.h"
#include "spawn_child.h"

namespace RuntimeManager::host {
namespace {

// The descriptors of the child are put in place one after the other, so none of their sources may
// lie where another one goes.
UniqueFd Raise(UniqueFd fd) {
  if (!fd.IsValid() || fd.Get() >= kFirstUnused) {
    return fd;
  }
  return UniqueFd(::fcntl(fd.Get(), F_DUPFD_CLOEXEC, kFirstUnused));
}

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

// The read end does not block.
int OpenPipe(Pipe* pipe) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    return errno;
  }
  pipe->read.Reset(ends[0]);
  pipe->write.Reset(ends[1]);
  if (::fcntl(pipe->read.Get(), F_SETFL, O_NONBLOCK) != 0) {
    return errno;
  }
  pipe->read = Raise(std::move(pipe->read));
  pipe->write = Raise(std::move(pipe->write));
  return pipe->read.IsValid() && pipe->write.IsValid() ? 0 : errno;
}

// The starter's variables without those that make it a task itself.
std::vector<QByteArray> InheritedVariables() {
  std::vector<QByteArray> variables;
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    const QByteArray text(*variable);
    const QByteArray name = text.left(text.indexOf('='));
    if (name != "LISTEN_PID" && name != "LISTEN_FDS" && name != "LISTEN_FDNAMES" &&
        name != kTaskVariable) {
      variables.push_back(text);
    }
  }
  return variables;
}

// The variable that the child's number goes into; empty for what is no task.
QByteArray PidVariable(const SpawnRequest& request) {
  if (request.listen_socket >= 0) {
    return "LISTEN_PID=";
  }
  return request.task_name.isEmpty() ? QByteArray() : kTaskVariable + QByteArray("=");
}

std::vector<char*> Pointers(std::vector<QByteArray>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (QByteArray& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// Descriptors of the child's, before they are in their places.
struct ChildFiles {
  UniqueFd null_device;
  UniqueFd listen_socket;
  Pipe status;
  Pipe errors;
};

int OpenFiles(const SpawnRequest& request, ChildFiles* files) {
  files->null_device = Raise(UniqueFd(::open("/dev/null", O_RDWR | O_CLOEXEC)));
  if (!files->null_device.IsValid()) {
    return errno;
  }
  if (request.listen_socket >= 0) {
    files->listen_socket.Reset(::fcntl(request.listen_socket, F_DUPFD_CLOEXEC, kFirstUnused));
    if (!files->listen_socket.IsValid()) {
      return errno;
    }
  }
  if (const int error_number = OpenPipe(&files->status)) {
    return error_number;
  }
  return request.capture_stderr ? OpenPipe(&files->errors) : 0;
}

// The child's arguments and variables, and the arrays of pointers to them that exec takes.
class ChildTexts {
 public:
  explicit ChildTexts(const SpawnRequest& request)
      : arguments_(request.arguments.begin(), request.arguments.end()),
        variables_(InheritedVariables()),
        pid_variable_(PidVariable(request)) {
    arguments_.insert(arguments_.begin(), request.program);
    if (request.listen_socket >= 0) {
      variables_.emplace_back("LISTEN_FDS=1");
      variables_.push_back("LISTEN_FDNAMES=" + request.task_name);
    }
    // The child writes the number.
    if (!pid_variable_.isEmpty()) {
      variables_.push_back(pid_variable_ + QByteArray(int{kPidDigits}, '\0'));
    }
    argument_pointers_ = Pointers(arguments_);
    variable_pointers_ = Pointers(variables_);
  }
  ChildTexts(const ChildTexts&) = delete;
  ChildTexts& operator=(const ChildTexts&) = delete;

  char* const* Arguments() const { return argument_pointers_.data(); }
  char* const* Variables() const { return variable_pointers_.data(); }
  // Where the child writes its process id.
  char* PidDigits() {
    return pid_variable_.isEmpty()
               ? unused_digits_.data()
               : variable_pointers_[variables_.size() - 1] + pid_variable_.size();
  }

 private:
  std::vector<QByteArray> arguments_;
  std::vector<QByteArray> variables_;
  std::vector<char*> argument_pointers_;
  std::vector<char*> variable_pointers_;
  const QByteArray pid_variable_;
  std::array<char, kPidDigits> unused_digits_{};
};

// Makes the child with every signal blocked, so that no handler of the application runs in it. Until
// it runs the program it has the application's memory, and this thread waits: a copy of the map of
// 500 MiB takes 15 ms, and 100 ms more when the application writes there again.
pid_t MakeChild(const ChildPlan& plan, int* error_number) {
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t pid = ::vfork();
  if (pid == 0) {
    RunChild(plan);
  }
  *error_number = pid < 0 ? errno : 0;
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return pid;
}

}  // namespace

bool IsSeenByChildren() {
  return QFile::symLinkTarget("/proc/self/ns/pid") ==
         QFile::symLinkTarget("/proc/self/ns/pid_for_children");
}

int Spawn(const SpawnRequest& request, Spawned* spawned) {
  ChildFiles files;
  int error_number = OpenFiles(request, &files);
  if (error_number != 0) {
    return error_number;
  }
  ChildTexts texts(request);
  ChildPlan plan;
  plan.program = request.program.constData();
  plan.arguments = texts.Arguments();
  plan.environment = texts.Variables();
  plan.pid_digits = texts.PidDigits();
  plan.null_device = files.null_device.Get();
  plan.listen_socket = files.listen_socket.Get();
  plan.stderr_pipe = files.errors.write.Get();
  plan.status = files.status.write.Get();
  plan.starter = ::getpid();
  plan.dies_with_starter = request.dies_with_starter;

  spawned->pid = MakeChild(plan, &error_number);
  spawned->exec_status = std::move(files.status.read);
  spawned->stderr_pipe = std::move(files.errors.read);
  return error_number;
}

}  // namespace RuntimeManager::host

// What the tests of the runtime manager share: a private world for each test, an event loop, and a
// look at what is left when it is over.
#ifndef RUNTIME_MANAGER_TESTS_KIT_H
#define RUNTIME_MANAGER_TESTS_KIT_H

#include <RuntimeManager/Error.h>
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <gtest/gtest.h>

#include <QtCore/QByteArray>
#include <QtCore/QJsonObject>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtCore/QTemporaryDir>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace kit {

using RuntimeManager::Error;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;

// Runs the event loop until `done` says so. False, and the test fails, when that takes too long.
bool RunUntil(const std::function<bool()>& done);
// The same with a limit of its own, after which the test goes on.
bool RunUntil(const std::function<bool()>& done, int limit_ms);
// The same for much work, which a slow machine may do in more time: until `progress`, a count of what
// is done, has stayed the same for the usual limit.
bool RunUntilStuck(const std::function<bool()>& done, const std::function<int()>& progress);
// Runs the event loop for a while, for things that must not happen.
void RunFor(int ms);

// An environment variable for a scope.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const QByteArray& value);
  ~ScopedVariable();
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  const char* name_;
  std::optional<QByteArray> before_;
};

// Collects the warnings of the runtime manager for a scope.
class WarningCatcher {
 public:
  WarningCatcher();
  ~WarningCatcher();
  WarningCatcher(const WarningCatcher&) = delete;
  WarningCatcher& operator=(const WarningCatcher&) = delete;
  // How many contain `text`.
  int Count(const QString& text) const;
};

// The calls of one completion or signal that carries an error.
struct Outcomes {
  std::vector<Error> errors;
  std::function<void(const Error&)> Recorder() {
    return [this](const Error& error) { errors.push_back(error); };
  }
  bool Arrived() const { return !errors.empty(); }
  // Waits for the first; an error that says so when there is none.
  Error Wait();
};

// Everything that a connection gives for as long as this is there.
struct Inbox {
  explicit Inbox(TaskMessaging* messaging);
  bool WaitFor(std::size_t count);
  std::vector<QJsonObject> messages;
  Outcomes disconnects;
  QObject receiver;
};

// Connects to a task that says "welcome" to each starter, and hangs up. Until such a task has noticed
// that the starter before has left, it turns the next one away, who then tries again.
bool IsWelcome(const QString& socket_path);

// A program that runs beside the test, with a pipe on its standard output.
class Process {
 public:
  Process(const QString& program, const QStringList& words);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Without the line's end; what there is when the rest does not come in a minute.
  std::string ReadLine() const;
  void Kill() const;
  // Its exit status, as waitpid() tells it. One that does not end by itself is killed.
  int Wait();

 private:
  pid_t pid_ = -1;
  int output_ = -1;
};

// What reads, and what writes to it.
struct Stream {
  int read_end = -1;
  int write_end = -1;
};
Stream MakePipe();
Stream MakeTerminal();

// A pipe, or a terminal, in the place of this process's standard error, for a scope. Processes that
// are started meanwhile write to it, too.
class StderrPipe {
 public:
  explicit StderrPipe(const Stream& stream = MakePipe());
  ~StderrPipe();
  StderrPipe(const StderrPipe&) = delete;
  StderrPipe& operator=(const StderrPipe&) = delete;

  // Leaves no room in it: whoever writes without looking blocks.
  void Fill() const;
  // Reads until there is room for something.
  void MakeRoom() const;
  void CloseReadEnd();
  // What is there now, `most` bytes of it.
  QByteArray Read(int most) const;
  // Gives this process its own standard error back, and no byte more to the pipe.
  void Restore();
  // Everything from now on, until nobody can write to it any more.
  QByteArray ReadToEnd();

 private:
  Stream stream_;
  int before_ = -1;
};

// Reads a pipe empty when the test has been stuck for so long that a full pipe must be the cause.
class Rescuer {
 public:
  explicit Rescuer(const StderrPipe& pipe);
  ~Rescuer();
  Rescuer(const Rescuer&) = delete;
  Rescuer& operator=(const Rescuer&) = delete;
  bool WasNeeded() const { return needed_; }

 private:
  void Watch(const StderrPipe& pipe);

  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
  std::atomic<bool> needed_{false};
  std::thread thread_;
};

QByteArray ReadFile(const QString& path);
bool WaitForFile(const QString& path, const QByteArray& content_part);
QStringList OpenDescriptors();
bool IsGone(pid_t pid);
// A connection to a socket, which blocks for a minute at most; -1 when it is refused.
int ConnectTo(const QString& path);
// Its accept() waits for a minute at most.
int ListenOn(const QString& path);
// Everything until the end of the file, or until nothing has come for a minute.
QByteArray ReadToEnd(int descriptor);
QByteArray ReadLineFrom(int descriptor);
// Appends what a socket holds now.
void ReadMore(int socket, QByteArray* bytes);

QJsonObject Data(const QString& text);

class PlatformTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Writes an executable file that can be started as a task.
  void AddShellTask(const QString& name, const QByteArray& script);
  // The script finds its socket in `server` and has the usual modules.
  void AddPythonTask(const QString& name, const QByteArray& script);
  // The helper program under that task name.
  void AddHelperTask(const QString& name);
  QString PathOf(const QString& name) const { return world_.filePath(name); }
  QString RuntimeFolder() const { return PathOf("run/runtime-manager"); }
  QStringList SocketFiles() const;
  void ExpectStarts(Task& task);

 private:
  void AddTask(const QString& name, const QByteArray& content);

  QTemporaryDir world_;
  std::vector<std::unique_ptr<ScopedVariable>> variables_;
  QStringList descriptors_before_;
};

// A process's own listening socket and object on it: the task's end without a task.
class ServerEnd : public PlatformTest {
 protected:
  void SetUp() override;
  void TearDown() override;
  int Connect() { return ConnectTo(PathOf("server")); }
  static void SendLine(int socket, const QByteArray& line);
  // Whether the other side has closed the connection.
  static bool IsClosed(int socket);

  int listening_ = -1;
};

}  // namespace kit

#endif  // RUNTIME_MANAGER_TESTS_KIT_H

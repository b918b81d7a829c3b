#include "kit.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QFile>
#include <QtCore/QLoggingCategory>
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <mutex>

namespace kit {
namespace {

std::mutex warnings_mutex;
QStringList warnings;
bool catching = false;

void OnLogMessage(QtMsgType /*type*/, const QMessageLogContext& context, const QString& text) {
  const std::lock_guard lock(warnings_mutex);
  if (catching && QLatin1String(context.category) == QLatin1String("runtimemanager")) {
    warnings << text;
    return;
  }
  std::fprintf(stderr, "%s\n", qPrintable(text));
}

class ApplicationEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    qInstallMessageHandler(OnLogMessage);
    application_ = std::make_unique<QCoreApplication>(argument_count_, arguments_);
  }
  void TearDown() override { application_.reset(); }

 private:
  int argument_count_ = 1;
  char name_[6] = "tests";
  char* arguments_[2] = {name_, nullptr};
  std::unique_ptr<QCoreApplication> application_;
};

[[maybe_unused]] const auto* const environment =
    testing::AddGlobalTestEnvironment(new ApplicationEnvironment);

// For a busy machine: a test that waits so long has failed.
constexpr int kLimitSeconds = 120;

// Waits for bytes, or for the end of the file; false when neither comes in time.
bool HasInput(int descriptor) {
  pollfd state{descriptor, POLLIN, 0};
  const bool has_input = ::poll(&state, 1, kLimitSeconds * 1000) == 1;
  EXPECT_TRUE(has_input) << "nothing to read came in time";
  return has_input;
}

// Blocks in accept(), connect(), read() and write() for a limited time only.
int MakeSocket() {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const timeval limit{kLimitSeconds, 0};
  EXPECT_EQ(::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
  EXPECT_EQ(::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)), 0);
  return socket;
}

sockaddr_un Address(const QString& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const QByteArray bytes = path.toUtf8();
  EXPECT_LT(static_cast<std::size_t>(bytes.size()), sizeof(address.sun_path));
  std::copy(bytes.begin(), bytes.end(), address.sun_path);
  return address;
}

}  // namespace

bool RunUntil(const std::function<bool()>& done) {
  const bool is_done = RunUntil(done, kLimitSeconds * 1000);
  EXPECT_TRUE(is_done) << "what the test waits for has not come in " << kLimitSeconds << " s";
  return is_done;
}

bool RunUntil(const std::function<bool()>& done, int limit_ms) {
  QElapsedTimer timer;
  timer.start();
  while (!done()) {
    if (timer.elapsed() > limit_ms) {
      return false;
    }
    QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    ::usleep(200);
  }
  return true;
}

bool RunUntilStuck(const std::function<bool()>& done, const std::function<int()>& progress) {
  int before = 0;
  bool moves = true;
  while (!done() && moves) {
    before = progress();
    moves = RunUntil([&] { return done() || progress() != before; }, kLimitSeconds * 1000);
  }
  EXPECT_TRUE(done()) << "nothing has come for " << kLimitSeconds << " s, after " << before;
  return done();
}

void RunFor(int ms) {
  QElapsedTimer timer;
  timer.start();
  RunUntil([&timer, ms] { return timer.elapsed() >= ms; });
}

ScopedVariable::ScopedVariable(const char* name, const QByteArray& value) : name_(name) {
  if (const char* before = std::getenv(name)) {
    before_ = before;
  }
  if (value.isNull()) {
    ::unsetenv(name);
  } else {
    ::setenv(name, value.constData(), 1);
  }
}

ScopedVariable::~ScopedVariable() {
  if (before_) {
    ::setenv(name_, before_->constData(), 1);
  } else {
    ::unsetenv(name_);
  }
}

WarningCatcher::WarningCatcher() {
  const std::lock_guard lock(warnings_mutex);
  warnings.clear();
  catching = true;
}

WarningCatcher::~WarningCatcher() {
  const std::lock_guard lock(warnings_mutex);
  catching = false;
}

int WarningCatcher::Count(const QString& text) const {
  const std::lock_guard lock(warnings_mutex);
  return warnings.filter(text).size();
}

Error Outcomes::Wait() {
  if (!RunUntil([this] { return Arrived(); })) {
    return {-1, "nothing arrived in time"};
  }
  return errors.front();
}

Inbox::Inbox(TaskMessaging* messaging) {
  QObject::connect(messaging, &TaskMessaging::messageReceived, &receiver,
                   [this](const QJsonObject& message) { messages.push_back(message); });
  QObject::connect(messaging, &TaskMessaging::disconnected, &receiver, disconnects.Recorder());
}

bool Inbox::WaitFor(std::size_t count) {
  return RunUntil([this, count] { return messages.size() >= count; });
}

bool IsWelcome(const QString& socket_path) {
  bool is_welcome = false;
  return RunUntil([&socket_path, &is_welcome] {
    TaskMessaging messaging(socket_path);
    Inbox inbox(&messaging);
    RunUntil([&inbox] { return !inbox.messages.empty() || inbox.disconnects.Arrived(); });
    is_welcome = !inbox.messages.empty() && inbox.messages[0] == Data("welcome");
    return is_welcome;
  });
}

Process::Process(const QString& program, const QStringList& words) {
  int ends[2];
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  std::vector<QByteArray> texts{program.toUtf8()};
  for (const QString& word : words) {
    texts.push_back(word.toUtf8());
  }
  std::vector<char*> arguments;
  for (QByteArray& text : texts) {
    arguments.push_back(text.data());
  }
  arguments.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    // A shell has the programs that it runs in the background ignore it.
    std::signal(SIGINT, SIG_DFL);
    ::dup2(ends[1], STDOUT_FILENO);
    ::execv(arguments[0], arguments.data());
    ::_exit(127);
  }
  ::close(ends[1]);
  output_ = ends[0];
}

Process::~Process() {
  if (pid_ > 0) {
    Kill();
    Wait();
  }
  ::close(output_);
}

std::string Process::ReadLine() const {
  std::string line;
  char byte = 0;
  while (HasInput(output_) && ::read(output_, &byte, 1) == 1 && byte != '\n') {
    line += byte;
  }
  return line;
}

void Process::Kill() const { ::kill(pid_, SIGKILL); }

int Process::Wait() {
  int status = -1;
  if (!RunUntil([this, &status] { return ::waitpid(pid_, &status, WNOHANG) == pid_; })) {
    Kill();
    ::waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  return status;
}

Stream MakePipe() {
  int ends[2] = {-1, -1};
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  return {ends[0], ends[1]};
}

Stream MakeTerminal() {
  Stream stream;
  stream.read_end = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  EXPECT_EQ(::grantpt(stream.read_end), 0);
  EXPECT_EQ(::unlockpt(stream.read_end), 0);
  stream.write_end = ::open(::ptsname(stream.read_end), O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios mode{};
  EXPECT_EQ(::tcgetattr(stream.write_end, &mode), 0);
  ::cfmakeraw(&mode);
  EXPECT_EQ(::tcsetattr(stream.write_end, TCSANOW, &mode), 0);
  return stream;
}

StderrPipe::StderrPipe(const Stream& stream)
    : stream_(stream), before_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
  ::fcntl(stream_.read_end, F_SETFL, O_NONBLOCK);
  ::dup2(stream_.write_end, STDERR_FILENO);
}

StderrPipe::~StderrPipe() {
  Restore();
  CloseReadEnd();
}

void StderrPipe::Fill() const {
  std::array<char, 4096> fill{};
  fill.fill('f');
  ::fcntl(stream_.write_end, F_SETFL, O_NONBLOCK);
  while (::write(stream_.write_end, fill.data(), fill.size()) > 0) {
    continue;
  }
  ::fcntl(stream_.write_end, F_SETFL, 0);
}

void StderrPipe::MakeRoom() const {
  pollfd room{stream_.write_end, POLLOUT, 0};
  EXPECT_TRUE(RunUntil([this, &room] {
    if (::poll(&room, 1, 0) == 1) {
      return true;
    }
    Read(64);
    return false;
  }));
}

void StderrPipe::CloseReadEnd() {
  if (stream_.read_end >= 0) {
    ::close(stream_.read_end);
  }
  stream_.read_end = -1;
}

QByteArray StderrPipe::Read(int most) const {
  QByteArray bytes(most, Qt::Uninitialized);
  const ssize_t size = ::read(stream_.read_end, bytes.data(), static_cast<std::size_t>(most));
  bytes.truncate(static_cast<int>(std::max<ssize_t>(size, 0)));
  return bytes;
}

void StderrPipe::Restore() {
  if (before_ < 0) {
    return;
  }
  ::dup2(before_, STDERR_FILENO);
  ::close(before_);
  ::close(stream_.write_end);
  before_ = stream_.write_end = -1;
}

QByteArray StderrPipe::ReadToEnd() {
  Restore();
  ::fcntl(stream_.read_end, F_SETFL, 0);
  return kit::ReadToEnd(stream_.read_end);
}

Rescuer::Rescuer(const StderrPipe& pipe) : thread_([this, &pipe] { Watch(pipe); }) {}

Rescuer::~Rescuer() {
  {
    const std::lock_guard lock(mutex_);
    done_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Rescuer::Watch(const StderrPipe& pipe) {
  std::unique_lock lock(mutex_);
  const auto is_done = [this] { return done_; };
  if (changed_.wait_for(lock, std::chrono::seconds(20), is_done)) {
    return;
  }
  needed_ = true;
  while (!changed_.wait_for(lock, std::chrono::milliseconds(10), is_done)) {
    pipe.Read(1 << 20);
  }
}

QByteArray ReadFile(const QString& path) {
  QFile file(path);
  return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool WaitForFile(const QString& path, const QByteArray& content_part) {
  return RunUntil([&path, &content_part] {
    return QFile::exists(path) && ReadFile(path).contains(content_part);
  });
}

QStringList OpenDescriptors() {
  QStringList open;
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(descriptor);
    char target[256] = {};
    if (::readlink(link.constData(), target, sizeof(target) - 1) > 0) {
      open << QString("%1 -> %2").arg(descriptor).arg(QString::fromUtf8(target));
    }
  }
  return open;
}

bool IsGone(pid_t pid) { return ::kill(pid, 0) != 0 && errno == ESRCH; }

int ConnectTo(const QString& path) {
  const int socket = MakeSocket();
  const sockaddr_un address = Address(path);
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    return socket;
  }
  ::close(socket);
  return -1;
}

int ListenOn(const QString& path) {
  const int socket = MakeSocket();
  const sockaddr_un address = Address(path);
  EXPECT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  EXPECT_EQ(::listen(socket, 8), 0);
  return socket;
}

QByteArray ReadToEnd(int descriptor) {
  QByteArray all;
  char chunk[4096];
  ssize_t size = 0;
  while (HasInput(descriptor) && (size = ::read(descriptor, chunk, sizeof(chunk))) > 0) {
    all.append(chunk, static_cast<int>(size));
  }
  return all;
}

QByteArray ReadLineFrom(int descriptor) {
  QByteArray line;
  bool more = true;
  RunUntil([&line, &more, descriptor] {
    char byte = 0;
    ssize_t size = 0;
    while ((size = ::recv(descriptor, &byte, 1, MSG_DONTWAIT)) == 1 && byte != '\n') {
      line += byte;
    }
    more = size < 0;
    return !more;
  });
  return line;
}

void ReadMore(int socket, QByteArray* bytes) {
  char chunk[65536];
  ssize_t size = 0;
  while ((size = ::recv(socket, chunk, sizeof(chunk), MSG_DONTWAIT)) > 0) {
    bytes->append(chunk, static_cast<int>(size));
  }
}

QJsonObject Data(const QString& text) { return {{"data", text}}; }

void PlatformTest::SetUp() {
  ASSERT_TRUE(world_.isValid());
  ASSERT_TRUE(QDir(world_.path()).mkdir("run"));
  ASSERT_TRUE(QDir(world_.path()).mkdir("tasks"));
  const auto set = [this](const char* name, const QByteArray& value) {
    variables_.push_back(std::make_unique<ScopedVariable>(name, value));
  };
  set("XDG_RUNTIME_DIR", PathOf("run").toUtf8());
  set("RUNTIME_MANAGER_TASK_PATH", PathOf("tasks").toUtf8());
  set("WORLD", world_.path().toUtf8());
  descriptors_before_ = OpenDescriptors();
}

// No zombie, no descriptor and no socket file is left after any path.
void PlatformTest::TearDown() {
  // Only looks: reaping is what the runtime manager has to do.
  const auto has_no_child = [] {
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD;
  };
  EXPECT_TRUE(RunUntil(has_no_child)) << "a child is left";
  RunUntil([this] { return OpenDescriptors() == descriptors_before_; }, kLimitSeconds * 1000);
  EXPECT_EQ(OpenDescriptors().join('\n').toStdString(),
            descriptors_before_.join('\n').toStdString());
  EXPECT_EQ(SocketFiles().join(' ').toStdString(), "");
  variables_.clear();
}

QStringList PlatformTest::SocketFiles() const {
  return QDir(RuntimeFolder())
      .entryList({"*.sock"}, QDir::AllEntries | QDir::System | QDir::Hidden);
}

void PlatformTest::AddTask(const QString& name, const QByteArray& content) {
  QFile file(PathOf("tasks/" + name));
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  file.write(content);
  file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

void PlatformTest::AddShellTask(const QString& name, const QByteArray& script) {
  AddTask(name, "#!/bin/sh\n" + script + "\n");
}

void PlatformTest::AddPythonTask(const QString& name, const QByteArray& script) {
  AddTask(name, "#!" PYTHON
                " -S\n"
                "import json, os, signal, socket, sys, time\n"
                "server = socket.socket(fileno=3)\n" +
                    script + "\n");
}

void PlatformTest::AddHelperTask(const QString& name) {
  ASSERT_TRUE(QFile::link(HELPER, PathOf("tasks/" + name)));
}

void PlatformTest::ExpectStarts(Task& task) {
  Outcomes started;
  task.start(started.Recorder());
  const Error error = started.Wait();
  ASSERT_FALSE(error.isError()) << error.message().toStdString();
}

void ServerEnd::SetUp() {
  PlatformTest::SetUp();
  listening_ = ListenOn(PathOf("server"));
}

void ServerEnd::TearDown() {
  ::close(listening_);
  PlatformTest::TearDown();
}

void ServerEnd::SendLine(int socket, const QByteArray& line) {
  const QByteArray bytes = line + '\n';
  EXPECT_EQ(::send(socket, bytes.constData(), static_cast<std::size_t>(bytes.size()), MSG_NOSIGNAL),
            bytes.size());
}

bool ServerEnd::IsClosed(int socket) {
  return RunUntil([socket] {
    char byte = 0;
    const ssize_t size = ::recv(socket, &byte, 1, MSG_DONTWAIT);
    return size == 0 || (size < 0 && errno != EAGAIN);
  });
}

}  // namespace kit

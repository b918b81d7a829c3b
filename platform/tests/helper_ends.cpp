#include "helper_ends.h"

#include <RuntimeManager/RuntimeDispatcher.h>
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace helper {
namespace {

using namespace RuntimeManager;  // NOLINT(google-build-using-namespace)

int Connect(const QString& path) {
  const QByteArray bytes = path.toUtf8();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::copy(bytes.begin(), bytes.end(), address.sun_path);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    return socket;
  }
  ::close(socket);
  return -1;
}

template <typename Done>
bool RunUntil(const Done& done) {
  QElapsedTimer timer;
  timer.start();
  while (!done() && timer.elapsed() < 60000) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
  }
  return done();
}

}  // namespace

void Say(const QString& text) {
  std::printf("%s\n", qPrintable(text));
  std::fflush(stdout);
}

int Intrude() {
  const QDir folder(qEnvironmentVariable("XDG_RUNTIME_DIR") + "/runtime-manager");
  Say("ready");
  int socket = -1;
  while (socket < 0) {
    for (const QString& name : folder.entryList({"*.sock"}, QDir::AllEntries | QDir::System)) {
      socket = Connect(folder.filePath(name));
    }
  }
  Say("connected");
  char byte = 0;
  Say(::recv(socket, &byte, 1, 0) <= 0 ? "closed" : "served");
  return 0;
}

int StartMany(const QString& name, int count, const QString& how) {
  std::vector<std::unique_ptr<Task>> tasks;
  int running = 0;
  for (int i = 0; i < count; ++i) {
    tasks.push_back(std::make_unique<Task>(name));
    tasks.back()->start([&running, count](const Error& error) {
      if (!error.isError() && ++running == count) {
        QCoreApplication::quit();
      }
    });
  }
  QCoreApplication::exec();
  Say("started");
  // Until the shells have set their traps.
  const QDir world(qEnvironmentVariable("WORLD"));
  RunUntil([&world, count] { return world.entryList({"ready.*"}).size() >= count; });
  Say("leaves");
  if (how == "exit") {
    std::exit(0);
  }
  if (how == "kept") {
    static const auto kept = std::move(tasks);
  }
  return 0;
}

int IgnoreTheEnd(const QString& how) {
  std::signal(SIGTERM, SIG_IGN);
  std::atexit([] { QFile(qEnvironmentVariable("WORLD") + "/exited").open(QIODevice::WriteOnly); });
  std::unique_ptr<TaskMessaging> messaging;
  if (how == "serving") {
    messaging = std::make_unique<TaskMessaging>(RuntimeDispatcher::instance()->localServerSocket());
  }
  std::unique_ptr<Task> own;
  if (how == "starter") {
    own = std::make_unique<Task>("echo");
    own->withIpcSocket(true);
    own->start({});
  }
  QFile pid(qEnvironmentVariable("WORLD") + "/pid");
  if (pid.open(QIODevice::WriteOnly)) {
    pid.write(QByteArray::number(::getpid()) + '\n');
    pid.close();
  }
  return QCoreApplication::exec();
}

namespace {

// Meanwhile the exit of the process waits for its peer.
void DoMeanwhile(TaskMessaging* messaging, const QString& how, const std::atomic<bool>& is_over) {
  constexpr std::chrono::milliseconds kUntilExitWaits(300);
  std::this_thread::sleep_for(kUntilExitWaits);
  messaging->sendData(QByteArray(how == "end" ? 300'000 : 10, 'x'));
  QFile done(qEnvironmentVariable("WORLD") + "/done");
  if (done.open(QIODevice::WriteOnly)) {
    done.write(is_over ? "late\n" : "in time\n");
  }
}

}  // namespace

int LeaveWhileWriting(int listening, const QString& how) {
  // What is registered first runs last.
  static std::atomic<bool> is_over{false};
  std::atexit([] { is_over = true; });
  auto* const messaging = new TaskMessaging(listening);
  QObject::connect(messaging, &TaskMessaging::messageReceived, messaging, [messaging, how] {
    for (int i = 0; i < 20; ++i) {
      messaging->sendData(QByteArray(100'000, static_cast<char>('a' + i)));
    }
    if (how == "end" || how == "send") {
      std::thread([messaging, how] { DoMeanwhile(messaging, how, is_over); }).detach();
    }
    std::exit(0);
  });
  return QCoreApplication::exec();
}

namespace {

// A task, the connection to it, and what has come of both.
class Talk {
 public:
  explicit Talk(const QString& name) : task_(name) {
    task_.withIpcSocket(true);
    QObject::connect(&task_, &Task::finished, [this] { news_ += " finished"; });
    task_.start([this](const Error& error) { OnStarted(error); });
  }

  bool WaitFor(const QString& news) {
    return RunUntil([this, news] { return news_.endsWith(news); });
  }
  void Kill() const {
    if (process_ > 0) {
      ::kill(process_, SIGKILL);
    }
  }
  void Stop() {
    task_.stop({}, [this](const Error& error) { news_ += " stopped" + error.message(); });
  }
  QString News() const { return news_; }

 private:
  void OnStarted(const Error& error) {
    news_ += "started" + error.message();
    messaging_ = std::make_unique<TaskMessaging>(task_.socketPath());
    QObject::connect(messaging_.get(), &TaskMessaging::dataReceived,
                     [this](const QByteArray& text) {
                       process_ = text.toInt();
                       news_ += " answered";
                     });
    messaging_->sendData("hello");
  }

  Task task_;
  std::unique_ptr<TaskMessaging> messaging_;
  pid_t process_ = 0;
  QString news_;
};

}  // namespace

int ServeTwoApplications(const QString& name, std::unique_ptr<QCoreApplication> application,
                         int count, char** arguments) {
  auto first = std::make_unique<Talk>(name);
  first->WaitFor("answered");
  application.reset();
  application = std::make_unique<QCoreApplication>(count, arguments);
  Talk second(name);
  second.WaitFor("answered");
  second.Kill();
  second.WaitFor("finished");
  first->Stop();
  first->WaitFor("stopped");
  Say(first->News());
  Say(second.News());
  return 0;
}

}  // namespace helper

// A program for the tests: a task, or a starter, as its first argument says. Sources of its own
// processes, it is what a test cannot be: killed, started as a task, and alone with its
// environment.
#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/RuntimeDispatcher.h>
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <dlfcn.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QTimer>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "crowd.h"
#include "helper_copies.h"
#include "helper_ends.h"
#include "helper_intents.h"

// With SLOW_SENDS in the environment, the socket has a message long before the call returns that sent
// it.
extern "C" __attribute__((visibility("default"))) ssize_t sendmsg(int socket, const msghdr* message,
                                                                  int flags) {
  using Call = ssize_t (*)(int, const msghdr*, int);
  static const auto call = reinterpret_cast<Call>(::dlsym(RTLD_NEXT, "sendmsg"));
  static const bool is_slow = std::getenv("SLOW_SENDS") != nullptr;
  const ssize_t size = call(socket, message, flags);
  if (is_slow) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  return size;
}

// With SLOW_CONNECTS, a socket is there for a while before this process connects to it.
extern "C" __attribute__((visibility("default"))) int connect(int socket, const sockaddr* address,
                                                              socklen_t size) {
  using Call = int (*)(int, const sockaddr*, socklen_t);
  static const auto call = reinterpret_cast<Call>(::dlsym(RTLD_NEXT, "connect"));
  static const bool is_slow = std::getenv("SLOW_CONNECTS") != nullptr;
  if (is_slow) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
  return call(socket, address, size);
}

namespace {

using helper::Say;
using namespace RuntimeManager;  // NOLINT(google-build-using-namespace)

void Note(const QString& file, const QString& text) {
  QFile out(qEnvironmentVariable("WORLD") + '/' + file);
  if (out.open(QIODevice::WriteOnly | QIODevice::Append)) {
    out.write(text.toUtf8() + '\n');
  }
}

// Sends back what it gets; ends when the starter leaves.
int Echo() {
  TaskMessaging messaging(RuntimeDispatcher::instance()->localServerSocket());
  QObject::connect(&messaging, &TaskMessaging::messageReceived, &messaging,
                   &TaskMessaging::sendMessage);
  QObject::connect(&messaging, &TaskMessaging::disconnected, qApp, &QCoreApplication::quit);
  return QCoreApplication::exec();
}

// Answers the first message with five long ones, and is gone: by exit(), or without a word.
// Unasked, it does so when it has run for a moment.
int FloodAndExit(const QString& how) {
  auto* messaging = new TaskMessaging(RuntimeDispatcher::instance()->localServerSocket());
  const auto flood = [messaging, how] {
    for (int i = 0; i < 5; ++i) {
      messaging->sendData(QByteArray(kit::kFloodText, static_cast<char>('a' + i)));
    }
    if (how == "at-once") {
      Note("flooded", "");
      ::_exit(0);
    }
    std::exit(0);
  };
  QObject::connect(messaging, &TaskMessaging::messageReceived, messaging, flood);
  if (how == "unasked") {
    QTimer::singleShot(100, messaging, flood);
  }
  return QCoreApplication::exec();
}

// Sends back what it gets as texts, and exits in the middle of it when it is told to.
int AnswerAndExit() {
  auto* messaging = new TaskMessaging(RuntimeDispatcher::instance()->localServerSocket());
  QObject::connect(messaging, &TaskMessaging::dataReceived, messaging,
                   [messaging](const QByteArray& text) {
                     if (text == "exit") {
                       std::exit(0);
                     }
                     messaging->sendData(text);
                   });
  QObject::connect(messaging, &TaskMessaging::disconnected, qApp, &QCoreApplication::quit);
  return QCoreApplication::exec();
}

// Sends from many threads while it gets what the starter's many threads send, and tells what it
// got.
int SendAndGetFromThreads() {
  TaskMessaging messaging(RuntimeDispatcher::instance()->localServerSocket());
  kit::Tally tally;
  tally.Watch(&messaging);
  kit::Crowd crowd(&messaging);
  QTimer timer;
  QObject::connect(&timer, &QTimer::timeout, [&tally, &timer] {
    if (tally.IsWhole()) {
      timer.stop();
      Note("tally", QString("%1 %2").arg(tally.Count()).arg(QString::fromUtf8(tally.Faults())));
    }
  });
  timer.start(10);
  QObject::connect(&messaging, &TaskMessaging::disconnected, qApp, &QCoreApplication::quit);
  return QCoreApplication::exec();
}

[[noreturn]] void End(const QString& how) {
  if (how == "_exit") {
    ::_exit(0);
  }
  if (how == "abort") {
    ::prctl(PR_SET_DUMPABLE, 0);  // no core file
    std::abort();
  }
  if (how == "signal") {
    ::raise(SIGKILL);
  }
  std::exit(0);
}

// The socket at a path, or of a task that is started.
QString SocketOf(const QString& path_or_name) {
  if (path_or_name.contains('/')) {
    return path_or_name;
  }
  auto* const task = new Task(path_or_name);
  task->withIpcSocket(true);
  task->start({});
  return task->socketPath();
}

// Makes a copy of the process, which destroys the object and is gone, or returns from the handler and
// from main(). It sends, which no copy shall do.
void Fork(TaskMessaging* messaging, bool returns) {
  const pid_t copy = ::fork();
  if (copy == 0 && !returns) {
    delete messaging;
    ::_exit(0);
  }
  if (copy == 0) {
    QObject::connect(messaging, &TaskMessaging::dataReceived,
                     [messaging] { messaging->sendData("of a copy"); });
  } else {
    ::waitpid(copy, nullptr, 0);
  }
  QCoreApplication::quit();
}

// A starter's end that answers the first message and leaves at the second, in one way or another.
int AnswerAndLeave(const QString& peer, const QString& how) {
  auto* messaging = new TaskMessaging(SocketOf(peer));
  static int messages = 0;
  QObject::connect(messaging, &TaskMessaging::dataReceived, messaging, [messaging, how] {
    if (++messages == 1) {
      messaging->sendData("first");
    } else if (messages == 2 && how.startsWith("fork")) {
      Fork(messaging, how == "fork-and-return");
    } else if (messages == 2) {
      End(how);
    }
  });
  return QCoreApplication::exec();
}

// Serves one starter after the other on the same descriptor, each with an object of its own.
int Again() {
  auto* messaging = new TaskMessaging(RuntimeDispatcher::instance()->localServerSocket(), qApp);
  messaging->sendMessage({{"data", "welcome"}});
  QObject::connect(messaging, &TaskMessaging::disconnected, messaging, &QObject::deleteLater);
  QObject::connect(messaging, &QObject::destroyed, qApp, [] { static_cast<void>(Again()); });
  static bool runs = false;
  if (runs) {
    return 0;
  }
  runs = true;
  return QCoreApplication::exec();
}

// Tells what the process knows about being a task.
int Report() {
  const int before = qEnvironmentVariableIsSet("LISTEN_PID") ? 1 : 0;
  const int socket = RuntimeDispatcher::instance()->localServerSocket();
  Note("report", QString("set %1 socket %2 left %3%4")
                     .arg(before)
                     .arg(socket)
                     .arg(qEnvironmentVariable("LISTEN_PID"), qEnvironmentVariable("LISTEN_FDS")));
  return 0;
}

void Leave(Task* task, const QString& how) {
  if (how == "exit" || how == "apart") {
    std::exit(0);
  }
  if (how == "quit") {
    QCoreApplication::quit();
  }
  if (how == "delete") {
    delete task;
    std::exit(0);
  }
}

// Runs `call` when the file `go` is there.
void WhenTold(const std::function<void()>& call) {
  auto* timer = new QTimer(qApp);
  QObject::connect(timer, &QTimer::timeout, timer, [timer, call] {
    if (!QFile::exists(qEnvironmentVariable("WORLD") + "/go")) {
      return;
    }
    timer->stop();
    call();
  });
  timer->start(10);
}

// Starts a task (once its children are in another pid namespace: "apart"; without a socket: "bare")
// and stays, or leaves as it is told to: at once, when the file `go` is there, or when the task has
// ended.
int StartTask(const QString& name, const QString& how, const QString& when) {
  if (how == "apart" && ::unshare(CLONE_NEWPID) != 0) {
    Say("only root can");
    return 0;
  }
  static Task* const task = new Task(name);
  task->withIpcSocket(how != "bare");
  const auto leave = [how] { Leave(task, how); };
  if (when == "ended") {
    QObject::connect(task, &Task::finished, leave);
  }
  task->start([leave, when](const Error& error) {
    Say(error.isError() ? "error " + error.message() : "started " + task->socketPath());
    if (when == "told") {
      WhenTold(leave);
      return;
    }
    if (when != "ended") {
      leave();
    }
  });
  return QCoreApplication::exec();
}

// Deletes its task when there is no application object any more.
int StartTaskAndOutliveApplication(const QString& name,
                                   std::unique_ptr<QCoreApplication> application) {
  auto* task = new Task(name);
  task->withIpcSocket(true);
  task->start([](const Error& error) {
    Say("started " + error.message());
    QCoreApplication::quit();
  });
  const int result = QCoreApplication::exec();
  application.reset();
  delete task;
  Say("deleted");
  return result;
}

// Sends one message to a task, as an object or as a text. With the answer it hangs up, which ends
// the task, and that ends this process.
int Talk(const QString& name, bool as_text) {
  Task task(name);
  task.withIpcSocket(true);
  TaskMessaging* messaging = nullptr;
  QObject::connect(&task, &Task::finished, qApp, &QCoreApplication::quit);
  task.start([&task, &messaging, as_text](const Error& error) {
    if (error.isError()) {
      QCoreApplication::exit(1);
      return;
    }
    messaging = new TaskMessaging(task.socketPath(), qApp);
    if (as_text) {
      QObject::connect(messaging, &TaskMessaging::dataReceived, messaging, &QObject::deleteLater);
      messaging->sendData("hello");
      return;
    }
    QObject::connect(messaging, &TaskMessaging::messageReceived, messaging, &QObject::deleteLater);
    messaging->sendMessage({{"data", "hello \"you\""}});
  });
  return QCoreApplication::exec();
}

}  // namespace

int main(int count, char** arguments) {
  std::unique_ptr<QCoreApplication> application =
      std::make_unique<helper::Application>(count, arguments);
  const QStringList words = QCoreApplication::arguments();
  const QString verb = words.value(1);
  if (verb == "report") {
    return Report();
  }
  if (verb == "again") {
    return Again();
  }
  if (verb == "answer-and-exit") {
    return AnswerAndExit();
  }
  if (verb == "crowd") {
    return SendAndGetFromThreads();
  }
  if (verb == "leave") {
    return AnswerAndLeave(words.value(2), words.value(3));
  }
  if (verb == "intrude") {
    return helper::Intrude();
  }
  if (verb == "many") {
    return helper::StartMany(words.value(2), words.value(3).toInt(), words.value(4));
  }
  if (verb == "stubborn") {
    return helper::IgnoreTheEnd(words.value(2));
  }
  if (verb == "leave-while-writing") {
    return helper::LeaveWhileWriting(words.value(2).toInt(), words.value(3));
  }
  if (verb == "fork") {
    return helper::ForkWhileSending(words.value(2), words.value(3));
  }
  if (verb == "fork-in-handlers") {
    return helper::ForkInHandlers(words.value(2));
  }
  if (verb == "fork-while-making-tasks") {
    return helper::ForkWhileMakingTasks(words.value(2));
  }
  if (verb == "flood") {
    return FloodAndExit(words.value(2));
  }
  if (verb == "start") {
    return StartTask(words.value(2), words.value(3), words.value(4));
  }
  if (verb == "outlive") {
    return StartTaskAndOutliveApplication(words.value(2), std::move(application));
  }
  if (verb == "two-applications") {
    return helper::ServeTwoApplications(words.value(2), std::move(application), count, arguments);
  }
  if (verb == "own") {
    return helper::OwnIntent(words.value(2), words.value(3));
  }
  if (verb == "talk") {
    return Talk(words.value(2), words.value(3) == "text");
  }
  return Echo();
}

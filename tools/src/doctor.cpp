// doctor: looks at everything that a task needs, and says what to do about what is amiss.
#include <RuntimeManager/Inspect.h>
#include <tarv/tarv_capi.h>
#include <unistd.h>

#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QProcess>
#include <chrono>
#include <string>
#include <vector>

#include "conversation.h"
#include "exit_status.h"
#include "loaded_library.h"
#include "verbs.h"

namespace tarvctl {
namespace {

namespace inspect = RuntimeManager::inspect;

enum class Finding { kGood, kNotice, kBad };

// Prints a line a check, and remembers whether one went wrong.
class Report {
 public:
  explicit Report(Output& output) : output_(output) {}

  void Add(Finding finding, const QString& text) {
    const char* const mark = finding == Finding::kGood     ? "ok    "
                             : finding == Finding::kNotice ? "note  "
                                                           : "wrong ";
    const Colour colour = finding == Finding::kGood     ? Colour::kGreen
                          : finding == Finding::kNotice ? Colour::kYellow
                                                        : Colour::kRed;
    output_.PrintLine(output_.Paint(colour, mark) + text.toStdString());
    all_well_ = all_well_ && finding != Finding::kBad;
  }
  bool IsAllWell() const { return all_well_; }

 private:
  Output& output_;
  bool all_well_ = true;
};

void CheckRuntimeFolder(Report& report) {
  const auto folder = inspect::runtimeFolder();
  if (!folder.problem.isEmpty()) {
    report.Add(Finding::kBad, "runtime folder: " + folder.problem);
    return;
  }
  report.Add(Finding::kGood,
             QString("runtime folder: '%1', %2")
                 .arg(folder.path, folder.exists ? "mode 0" + QString::number(folder.mode, 8)
                                                 : QString("made at the first use")));
}

void CheckSockets(Report& report) {
  int live = 0;
  QStringList stale;
  for (const auto& socket : inspect::taskSockets()) {
    live += socket.live ? 1 : 0;
    if (!socket.live) {
      stale << socket.name;
    }
  }
  report.Add(Finding::kGood, QString("sockets of running tasks: %1").arg(live));
  if (!stale.isEmpty()) {
    report.Add(Finding::kNotice, QString("stale sockets: %1: their starters died; the next task "
                                         "that starts here removes them")
                                     .arg(stale.join(", ")));
  }
}

void CheckIntents(Report& report) {
  QStringList live;
  QStringList dead;
  for (const auto& intent : inspect::intents()) {
    (intent.live ? live : dead) << intent.name;
  }
  report.Add(Finding::kGood,
             "intents: " + (live.isEmpty() ? QString("none are owned") : live.join(", ")));
  if (!dead.isEmpty()) {
    report.Add(Finding::kNotice, "intents without a live owner: " + dead.join(", ") +
                                     ": start their owners again, or nobody answers");
  }
}

void CheckLimits(Report& report) {
  for (const auto& limit : inspect::limits()) {
    if (!limit.problem.isEmpty()) {
      report.Add(Finding::kBad, "limit: " + limit.problem);
      continue;
    }
    report.Add(Finding::kGood,
               QString("limit: %1 is %2 %3%4")
                   .arg(limit.variable)
                   .arg(limit.value)
                   .arg(limit.unit, limit.value == limit.by_default ? ", the default" : ""));
  }
  const long descriptors = ::sysconf(_SC_OPEN_MAX);
  constexpr long kFew = 256;  // a task takes three of its starter's
  report.Add(descriptors < kFew ? Finding::kBad : Finding::kGood,
             QString("limit: %1 descriptors a process%2")
                 .arg(descriptors)
                 .arg(descriptors < kFew ? ": raise it with ulimit -n" : ""));
}

void CheckSearchPath(Report& report) {
  for (const QString& folder : inspect::taskFolders()) {
    const bool exists = QFileInfo(folder).isDir();
    report.Add(exists ? Finding::kGood : Finding::kNotice,
               QString("search path: '%1'%2").arg(folder, exists ? "" : " does not exist"));
  }
  for (const auto& task : inspect::tasks()) {
    if (!task.problem.isEmpty()) {
      report.Add(Finding::kNotice,
                 QString("task '%1' in '%2': %3").arg(task.name, task.folder, task.problem));
    }
  }
}

void CheckLibrary(Report& report) {
  TARVProcTable root{};
  TARVRpcClientProcTable client{};
  TARVRpcServerProcTable server{};
  TARVIntentManagerProcTable intents{};
  TARVProcTableLoad(&root, sizeof(root));
  root.RpcClientProcTableLoad(&client, sizeof(client));
  root.RpcServerProcTableLoad(&server, sizeof(server));
  root.IntentManagerProcTableLoad(&intents, sizeof(intents));
  report.Add(
      Finding::kGood,
      QString("libtarv.so: version %1 in '%2'; tables of %3 (root), %4 (client), %5 (server) "
              "and %6 (intents) bytes")
          .arg(QString::fromStdString(LibraryVersion()), QString::fromStdString(LibraryFolder()))
          .arg(root.size)
          .arg(client.size)
          .arg(server.size)
          .arg(intents.size));
  if (LibraryVersion() != TARV_VERSION) {
    report.Add(Finding::kNotice, "libtarv.so: this tarvctl is of version " TARV_VERSION
                                 ": install tarv and tarv-tools of one version");
  }
}

// ---- One task ----

// The program that the task's name leads to; empty when there is none.
QString ProgramOf(const std::string& name, Report& report) {
  const QString wanted = QString::fromStdString(name);
  for (const auto& task : inspect::tasks()) {
    if (task.name == wanted && task.problem.isEmpty()) {
      report.Add(Finding::kGood, QString("program: '%1/%2'").arg(task.folder, task.name));
      return task.folder + '/' + task.name;
    }
  }
  for (const auto& task : inspect::tasks()) {
    if (task.name == wanted) {
      report.Add(Finding::kBad,
                 QString("program: '%1/%2': %3").arg(task.folder, task.name, task.problem));
      return {};
    }
  }
  report.Add(Finding::kBad, QString("program: there is no '%1' in the search path: build it there, "
                                    "or set RUNTIME_MANAGER_TASK_PATH")
                                .arg(wanted));
  return {};
}

void CheckInterpreter(const QString& program, Report& report) {
  const QString interpreter = inspect::interpreterOf(program);
  report.Add(Finding::kGood,
             "interpreter: " + (interpreter.isEmpty() ? QString("none, linked statically")
                                                      : '\'' + interpreter + '\''));
}

// What the loader says of the libraries that the program links; nothing for a script.
void CheckLibraries(const QString& program, Report& report) {
  QFile file(program);
  if (!file.open(QIODevice::ReadOnly) || file.read(4) !=
                                             "\x7f"
                                             "ELF") {
    return;
  }
  QProcess loader;
  loader.start("ldd", {program});
  loader.waitForFinished();
  QStringList missing;
  const QStringList lines = QString::fromLocal8Bit(loader.readAllStandardOutput()).split('\n');
  for (const QString& line : lines) {
    if (line.contains("not found")) {
      missing << line.section("=>", 0, 0).trimmed();
    }
  }
  if (missing.isEmpty()) {
    report.Add(Finding::kGood, QString("libraries: %1 are found").arg(lines.size() - 1));
    return;
  }
  report.Add(Finding::kBad, "libraries: not found: " + missing.join(", ") +
                                ": install them, or set the program's RPATH");
}

void CheckHandshake(const Request& request, Output& output, Report& report) {
  const auto begin = std::chrono::steady_clock::now();
  Session session(request.task, ParseDuration(request.timeout, "--timeout"),
                  [](const vorpc::Message::Notification& /*ignored*/) {});
  const AnyOutcome outcome = CallAndWait(session, {"$/describe"}, {}, request, output);
  const auto took =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin);
  if (!outcome && outcome.GetError().GetReason() != tarv::CallReason::kAnswered) {
    report.Add(Finding::kBad, QString("handshake: ") + outcome.GetError().what());
    return;
  }
  report.Add(Finding::kGood, QString("handshake: the task answers %1 ms after its start%2")
                                 .arg(took.count(), 0, 'f', 1)
                                 .arg(outcome ? "" : "; it has no description (no tarv::Service)"));
}

void CheckTask(const Request& request, Output& output, Report& report) {
  const TaskName name(request.task);
  const QString program = ProgramOf(name.Get(), report);
  if (program.isEmpty()) {
    return;
  }
  CheckInterpreter(program, report);
  CheckLibraries(program, report);
  CheckHandshake(request, output, report);
}

}  // namespace

int RunDoctor(const Request& request, Output& output) {
  Report report(output);
  CheckRuntimeFolder(report);
  CheckSockets(report);
  CheckLimits(report);
  CheckSearchPath(report);
  CheckLibrary(report);
  CheckIntents(report);
  if (!request.task.empty()) {
    CheckTask(request, output, report);
  }
  return report.IsAllWell() ? kDone : kAnsweredWithError;
}

}  // namespace tarvctl

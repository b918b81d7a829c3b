#include "driver.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <vector>

#include "figures.h"
#include "row.h"

namespace soak {
namespace {

namespace fs = std::filesystem;

// Sanitizers keep what is given back for a while, so memory says nothing.
#ifdef TARV_SANITIZED
constexpr bool kMemoryCounts = false;
#else
constexpr bool kMemoryCounts = true;
#endif
// What an application, or a task, may have more at the end than at the beginning: two of the largest
// messages, whose memory the allocator may keep.
constexpr std::int64_t kMostGrowthKib = 8192;
// What small blocks hold at rest is the same each time, but for buffers that come and go.
constexpr std::int64_t kMostHeldMore = 384 * 1024;

// One application that plays, and what it has told.
class Application {
 public:
  Application(std::string name, const QStringList& arguments, const std::string& program,
              const fs::path& log)
      : name_(std::move(name)) {
    process_.setStandardErrorFile(QString::fromStdString(log.string()), QIODevice::Append);
    process_.start(QString::fromStdString(program), arguments);
  }
  ~Application() {
    process_.kill();
    process_.waitForFinished();
  }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;

  // The rows that have come since the last call.
  std::vector<Row> TakeRows() {
    std::vector<Row> news;
    while (process_.canReadLine()) {
      Row row;
      if (FromLine(process_.readLine().trimmed().toStdString(), row)) {
        news.push_back(row);
      }
    }
    rows_.insert(rows_.end(), news.begin(), news.end());
    return news;
  }

  qint64 GetProcess() const { return process_.processId(); }
  bool HasEnded() const { return process_.state() == QProcess::NotRunning; }
  void Kill() { process_.kill(); }

  // What is wrong at the end.
  std::vector<std::string> Complaints() const {
    std::vector<std::string> complaints;
    if (process_.exitStatus() != QProcess::NormalExit || process_.exitCode() != 0) {
      complaints.push_back("the application " + name_ + " failed; its words are in the log");
    }
    if (rows_.empty()) {
      complaints.push_back("the application " + name_ + " has told nothing");
      return complaints;
    }
    Compare("descriptors", &Row::descriptors, 0, complaints);
    Compare("threads", &Row::threads, 0, complaints);
    Compare("children", &Row::children, 0, complaints);
    Compare("socket files", &Row::sockets, 0, complaints);
    Compare("descriptors of the steady task", &Row::task_descriptors, 0, complaints);
    if (kMemoryCounts) {
      Compare("KiB", &Row::private_kib, kMostGrowthKib, complaints);
      Compare("KiB of the steady task", &Row::task_private_kib, kMostGrowthKib, complaints);
      Compare("bytes allocated", &Row::held, kMostHeldMore, complaints);
      Compare("bytes allocated by the steady task", &Row::task_held, kMostHeldMore, complaints);
    }
    return complaints;
  }

  const std::string& GetName() const { return name_; }

 private:
  // The least of the last quarter with the most of the first: what comes and goes is no growth.
  void Compare(const char* what, std::int64_t Row::*member, std::int64_t most,
               std::vector<std::string>& complaints) const {
    const auto is_less = [member](const Row& a, const Row& b) { return a.*member < b.*member; };
    const auto quarter = static_cast<std::ptrdiff_t>((rows_.size() + 3) / 4);
    const auto before =
        (*std::max_element(rows_.begin(), rows_.begin() + quarter, is_less)).*member;
    const auto after = (*std::min_element(rows_.end() - quarter, rows_.end(), is_less)).*member;
    if (after > before + most) {
      complaints.push_back("the application " + name_ + " has " + std::to_string(after) + " " +
                           what + ", and had " + std::to_string(before));
    }
  }

  const std::string name_;
  QProcess process_;
  std::vector<Row> rows_;
};

void PrintHead() {
  std::printf(
      "    time  app     begun    values    errors  let go  starts signals     KiB held KiB fds "
      "thr "
      "chi soc  task KiB held KiB fds\n");
}

void Print(const std::string& name, qint64 milliseconds, const Row& row) {
  std::printf(
      "%8.1f  %-5s %8lu  %8lu  %8lu  %6lu  %6lu  %6lu  %6ld %8ld %3ld %3ld %3ld %3ld  %8ld "
      "%8ld %3ld\n",
      static_cast<double>(milliseconds) / 1000, name.c_str(), row.begun, row.values, row.errors,
      row.forgotten, row.starts, row.signals, row.private_kib, row.held / 1024, row.descriptors,
      row.threads, row.children, row.sockets, row.task_private_kib, row.task_held / 1024,
      row.task_descriptors);
  std::fflush(stdout);
}

std::vector<fs::path> SocketsBelow(const fs::path& folder) {
  std::vector<fs::path> sockets;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    // A hidden one whose maker was killed over it is left alone for a minute, as one that is made.
    if (entry.is_socket() && entry.path().filename().string().front() != '.') {
      sockets.push_back(entry.path());
    }
  }
  return sockets;
}

// The beginning of what the system tells of a process: "12 (soak_task) S".
std::string StateOf(int process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  return text.substr(0, text.rfind(')') + 3);
}

bool IsStopped(int process) { return StateOf(process).find(") T") != std::string::npos; }

class Driver {
 public:
  Driver(std::string program, double seconds, std::uint64_t seed)
      : program_(std::move(program)),
        seconds_(seconds),
        round_(std::clamp(seconds / 4, 1.0, 30.0)),
        seed_(seed),
        random_(seed) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    Surround();
    clock_.start();
  }

  int Run() {
    std::printf("soak: for %.0f s with seed %lu; the log: %s\n", seconds_, seed_, log_.c_str());
    PrintHead();
    applications_.push_back(Start("one", "two", seconds_, false));
    applications_.push_back(Start("two", "one", seconds_, true));
    while (!HaveAllEnded()) {
      QCoreApplication::processEvents(QEventLoop::AllEvents);
      TellNews();
      PlayTheVictim();
      Reap();
      usleep(kLookUs);
    }
    TellNews();
    victim_.reset();
    EndOrphans();
    Sweep();
    EndOrphans();
    return Judge();
  }

 private:
  static constexpr unsigned kLookUs = 20'000;

  // What the applications and their tasks find.
  void Surround() {
    const fs::path folder = folder_.path().toStdString();
    const fs::path here = fs::path(program_).parent_path();
    log_ = folder / "log";
    setenv("XDG_RUNTIME_DIR", (folder / "run").c_str(), 1);
    fs::create_directory(folder / "run");
    fs::permissions(folder / "run", fs::perms::owner_all);
    setenv("RUNTIME_MANAGER_TASK_PATH", (here / "tasks").c_str(), 1);
    setenv("RUNTIME_MANAGER_URI_HANDLER", "true", 1);
    setenv("LD_LIBRARY_PATH", (here / "lib").c_str(), 1);
    const std::string faults =
        "faulty: delay 1ms..30ms 1%; faulty: drop 1%; faulty: duplicate 1%; faulty: truncate 1%; "
        "faulty: corrupt 1%; faulty: kill after 20 messages 1%; faulty: stop after 20 messages 1%; "
        "faulty: refuse to start 1%; seed " +
        std::to_string(seed_);
    setenv("RUNTIME_MANAGER_FAULTS", faults.c_str(), 1);
    // What the C library's cache of free blocks keeps would count as held.
    setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
    // Bounds that the largest texts, and what waits for a task that sleeps, go beyond at times.
    setenv("RUNTIME_MANAGER_MAX_MESSAGE", "4000000", 1);
    setenv("RUNTIME_MANAGER_MAX_QUEUE", "32000000", 1);
    unsetenv("RUNTIME_MANAGER_TRACE");
    // One for each message that a fault spoils would fill the disk.
    setenv("QT_LOGGING_RULES", "runtimemanager.warning=false", 1);
  }

  std::unique_ptr<Application> Start(const std::string& name, const std::string& other,
                                     double seconds, bool is_restless) {
    const QStringList arguments{"--play",
                                QString::fromStdString(name),
                                QString::fromStdString(other),
                                QString::number(++seed_),
                                QString::number(seconds),
                                QString::number(round_),
                                is_restless ? "1" : "0"};
    return std::make_unique<Application>(name, arguments, program_, log_);
  }

  bool HaveAllEnded() const {
    return std::all_of(applications_.begin(), applications_.end(),
                       [](const auto& application) { return application->HasEnded(); });
  }

  void TellNews() {
    for (const auto& application : applications_) {
      for (const Row& row : application->TakeRows()) {
        Print(application->GetName(), clock_.elapsed(), row);
      }
    }
  }

  // A third application, which is killed in the middle of what it does.
  void PlayTheVictim() {
    if (!victim_ || victim_->HasEnded()) {
      victim_ = Start("victim", "one", seconds_, false);
      constexpr quint64 kLongestLifeMs = 4000;
      victim_end_.setRemainingTime(static_cast<qint64>(200 + random_() % kLongestLifeMs));
      ++victims_;
    } else if (victim_end_.hasExpired()) {
      victim_->Kill();
    }
  }

  // Orphans come to this process: tasks of a killed application. Those that it had stopped go on, to
  // their end; those that have ended are taken away.
  void Reap() const {
    for (const int child : Children()) {
      if (!IsAnApplication(child)) {
        if (IsStopped(child)) {
          kill(child, SIGCONT);
        }
        waitpid(child, nullptr, WNOHANG);
      }
    }
  }
  bool IsAnApplication(int child) const {
    const auto is_it = [child](const auto& application) {
      return application && application->GetProcess() == child;
    };
    return is_it(victim_) || std::any_of(applications_.begin(), applications_.end(), is_it);
  }

  int Judge() {
    std::vector<std::string> complaints;
    for (const auto& application : applications_) {
      const auto its = application->Complaints();
      complaints.insert(complaints.end(), its.begin(), its.end());
    }
    AddLeftovers(complaints);
    for (const std::string& complaint : complaints) {
      std::printf("soak: %s\n", complaint.c_str());
    }
    if (complaints.empty()) {
      std::printf("soak: all has ended where it began; %d applications were killed\n", victims_);
    } else {
      folder_.setAutoRemove(false);
      std::printf("soak: failed; the log: %s\n", log_.c_str());
    }
    return complaints.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
  }

  // Tasks of killed applications end themselves, after three seconds at most; the programs that open
  // URIs outlive any application.
  void EndOrphans() const {
    constexpr qint64 kPatienceMs = 20'000;
    const QDeadlineTimer limit(kPatienceMs);
    while (!Children().empty() && !limit.hasExpired()) {
      Reap();
      usleep(kLookUs);
    }
  }

  // What killed applications have left is taken away by the next one that uses the folder.
  void Sweep() {
    constexpr double kShort = 0.1;
    victim_ = Start("victim", "one", kShort, false);
    while (!victim_->HasEnded()) {
      QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
  }

  void AddLeftovers(std::vector<std::string>& complaints) const {
    for (const int child : Children()) {
      complaints.push_back("a process is left behind: " + StateOf(child));
      kill(child, SIGKILL);
    }
    for (const fs::path& socket : SocketsBelow(std::getenv("XDG_RUNTIME_DIR"))) {
      complaints.push_back("a socket is left behind: " + socket.string());
    }
  }

  const std::string program_;
  const double seconds_;
  const double round_;
  std::uint64_t seed_;
  std::mt19937_64 random_;
  QTemporaryDir folder_;
  fs::path log_;
  QElapsedTimer clock_;
  std::vector<std::unique_ptr<Application>> applications_;
  std::unique_ptr<Application> victim_;
  QDeadlineTimer victim_end_;
  int victims_ = 0;
};

}  // namespace

int Drive(const std::string& program, double seconds, std::uint64_t seed) {
  return Driver(program, seconds, seed).Run();
}

}  // namespace soak

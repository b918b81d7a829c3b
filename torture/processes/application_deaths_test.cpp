// An application dies, or stops for a while, at each step of its conversation; alone, or its task
// with it.

#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "deaths.h"
#include "in_time.h"
#include "kit/service.h"
#include "kit/surroundings.h"
#include "support/process_state.h"

namespace tarv::test {
namespace {

using testing::IsEmpty;

constexpr const char* kSteps[] = {"starting",  "started",  "connected", "asking",
                                  "half-sent", "answered", "stopping",  "releasing"};

bool Wait(const std::function<bool()>& condition, std::chrono::milliseconds limit = kPatience) {
  const auto end = std::chrono::steady_clock::now() + limit;
  constexpr unsigned kPauseUs = 10'000;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    usleep(kPauseUs);
  }
  return true;
}

// What it inherits is no pipe that somebody reads to its end: a task that is stopped would hold it.
class Mourner {
 public:
  explicit Mourner(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), MOURNER_PROGRAM);
    std::vector<char*> words;
    for (std::string& argument : arguments) {
      words.push_back(argument.data());
    }
    words.push_back(nullptr);
    if (posix_spawn(&process_, MOURNER_PROGRAM, nullptr, nullptr, words.data(), environ) != 0) {
      throw std::runtime_error("the mourner does not start");
    }
  }
  ~Mourner() { WaitForStatus(); }
  Mourner(const Mourner&) = delete;
  Mourner& operator=(const Mourner&) = delete;

  // As a shell tells it; -1 when it does not end.
  int WaitForStatus() {
    const bool has_ended = status_ || Wait([this] { return HasEnded(); });
    if (!has_ended) {
      kill(process_, SIGKILL);
    }
    return status_.value_or(-1);
  }
  bool IsStopped() const { return StateOf(process_) == 'T'; }
  void Signal(int number) const { kill(process_, number); }

 private:
  bool HasEnded() {
    int status = 0;
    if (waitpid(process_, &status, WNOHANG) != process_) {
      return false;
    }
    status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return true;
  }

  pid_t process_ = -1;
  std::optional<int> status_;
};

class ApplicationDies : public testing::TestWithParam<const char*> {
 protected:
  // Orphans come to this process, so that none is missed.
  ApplicationDies() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
  ~ApplicationDies() override { prctl(PR_SET_CHILD_SUBREAPER, 0); }

  // Plays one death, with a signal for the task; 0 for none.
  void Play(const Death& death, int signal) {
    SCOPED_TRACE(std::string(death.name) + ", the task gets signal " + std::to_string(signal));
    Mourner application({GetParam(), death.name, std::to_string(signal)});
    if (death.is_stop) {
      ASSERT_TRUE(Wait([&] { return application.IsStopped(); })) << "it does not stop";
      application.Signal(GoesOn(death) ? SIGCONT : SIGKILL);
    }
    EXPECT_EQ(application.WaitForStatus(), death.status);
    EXPECT_TRUE(IsOverInTime([](std::chrono::milliseconds limit) {
      return Wait([] { return HaveOrphansGone(); }, limit);
    })) << "a task outlives its application";
    ExpectNoFiles(death);
  }

  // What a crash left behind goes with the next use of the folder.
  void ExpectNoFiles(const Death& death) const {
    const bool ends_in_good_order = death.status == 0;
    if (!ends_in_good_order) {
      Mourner next({});
      EXPECT_EQ(next.WaitForStatus(), 0);
    }
    EXPECT_THAT(SocketsBelow(folder_.GetPath()), IsEmpty());
  }

  // A task that was stopped cannot end before it goes on.
  static bool HaveOrphansGone() {
    for (const int child : Children()) {
      if (StateOf(child) == 'T') {
        kill(child, SIGCONT);
      }
      waitpid(child, nullptr, WNOHANG);
    }
    return Children().empty();
  }

  const ScopedVariable task_path_{"RUNTIME_MANAGER_TASK_PATH", TaskFolder()};
  const RuntimeFolder folder_;
};

TEST_P(ApplicationDies, AndItsTaskEndsAndNothingIsLeft) {
  for (const Death& death : kDeaths) {
    Play(death, 0);
  }
}

// The long form plays each death with each of the signals, the short one with one of them.
TEST_P(ApplicationDies, WithItsTaskAndNothingIsLeft) {
  constexpr std::array kSignals{SIGKILL, SIGSEGV, SIGSTOP};
  const bool is_long = std::getenv("TARV_TORTURE") != nullptr;
  for (std::size_t i = 0; i < kDeaths.size(); ++i) {
    for (std::size_t j = 0; j < (is_long ? kSignals.size() : 1); ++j) {
      const int signal = kSignals.at((i + j) % kSignals.size());
      // Whoever goes on alone beside a task that is stopped waits for it, and rightly.
      if (!(GoesOn(kDeaths.at(i)) && signal == SIGSTOP)) {
        Play(kDeaths.at(i), signal);
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Step, ApplicationDies, testing::ValuesIn(kSteps), [](const auto& test) {
  std::string name = test.param;
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
});

}  // namespace
}  // namespace tarv::test

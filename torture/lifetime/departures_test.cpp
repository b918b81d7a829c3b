// An application, or its task, leaves in each callback, in each manner, with traffic both ways; the
// other end hears of it, and nothing stays.
#include "departures.h"

#include <gmock/gmock.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "course.h"
#include "kit/service.h"
#include "kit/surroundings.h"

namespace tarv::torture {
namespace {

constexpr const char* kInApplication[] = {"OnConnected",    "OnNotify",       "a response",
                                          "OnDisconnected", "OnManagerEnded", "a failed response"};
constexpr const char* kInTask[] = {"OnConnected", "OnRequest", "OnNotify"};

// The exit status of the application; 128 and the signal that ended it.
int RunApplication(std::vector<std::string> words) {
  words.insert(words.begin(), DEPARTING_PROGRAM);
  std::vector<char*> arguments;
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  pid_t process = -1;
  if (posix_spawn(&process, DEPARTING_PROGRAM, nullptr, nullptr, arguments.data(), environ) != 0) {
    throw std::runtime_error("the application does not start");
  }
  int status = 0;
  waitpid(process, &status, 0);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// The short form takes one holder of each manner, the long form all.
class Departures : public testing::TestWithParam<const char*> {
 protected:
  // Orphans come to this process, so that none is missed.
  Departures() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
  ~Departures() override { prctl(PR_SET_CHILD_SUBREAPER, 0); }

  template <class Play>
  static void ForEachManner(const Play& play) {
    const bool is_long = std::getenv("TARV_TORTURE") != nullptr;
    for (std::size_t i = 0; i < std::size(kManners); ++i) {
      for (std::size_t j = 0; j < (is_long ? std::size(kHolders) : 1); ++j) {
        const std::string holder = kHolders[(i + j) % std::size(kHolders)];
        SCOPED_TRACE(std::string(GetParam()) + ' ' + kManners[i] + ' ' + holder);
        play(kManners[i], holder);
      }
    }
  }

  void ExpectNothingLeft(bool in_good_order) const {
    EXPECT_TRUE(Wait([] {
      waitpid(-1, nullptr, WNOHANG);
      return test::Children().empty();
    })) << "a task outlives its application";
    if (in_good_order) {
      EXPECT_THAT(test::SocketsBelow(folder_.GetPath()), testing::IsEmpty());
    }
  }

  const test::ScopedVariable task_path_{"RUNTIME_MANAGER_TASK_PATH", test::TaskFolder()};
  const test::RuntimeFolder folder_;

 private:
  template <class Condition>
  static bool Wait(const Condition& condition) {
    constexpr int kLooks = 6000;
    constexpr unsigned kPauseUs = 10'000;
    for (int look = 0; look < kLooks && !condition(); ++look) {
      usleep(kPauseUs);
    }
    return condition();
  }
};

std::string NameOf(const testing::TestParamInfo<const char*>& info) {
  return TestNameOf(info.param);
}

class OfAnApplication : public Departures {};

INSTANTIATE_TEST_SUITE_P(In, OfAnApplication, testing::ValuesIn(kInApplication), NameOf);

TEST_P(OfAnApplication, LeaveNothingBehind) {
  ForEachManner([this](const std::string& manner, const std::string& holder) {
    EXPECT_EQ(RunApplication({GetParam(), manner, holder}), kDeparted);
    // Without its last functions a process removes no files; the next one does.
    ExpectNothingLeft(manner != "quick-exit");
  });
}

class OfATask : public Departures {};

INSTANTIATE_TEST_SUITE_P(In, OfATask, testing::ValuesIn(kInTask), NameOf);

TEST_P(OfATask, EndEachRequestOnce) {
  ForEachManner([this](const std::string& manner, const std::string& holder) {
    const test::ScopedVariable plan("DEPARTING",
                                    std::string(GetParam()) + ' ' + manner + ' ' + holder);
    EXPECT_EQ(RunApplication({"never", "", "client-first"}), EXIT_SUCCESS);
    ExpectNothingLeft(true);
  });
}

}  // namespace
}  // namespace tarv::torture

// One thing fails while another failure is being mended; ends come in the middle of beginnings, and
// beginnings in the middle of ends.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <tarv/calls/kept_task.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "end_to_end/application.h"
#include "in_time.h"
#include "small_disk.h"
#include "support/process_state.h"

namespace tarv::test {
namespace {

using testing::IsEmpty;
using namespace std::chrono_literals;

constexpr Method<std::int32_t(std::int32_t)> kEcho{"echo"};

// Every descriptor, taken for as long as the object lives.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit tight{CountDescriptors() + kRoom, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &tight);
    for (int taken = dup(0); taken >= 0; taken = dup(0)) {
      taken_.push_back(taken);
    }
  }
  ~NoDescriptors() {
    for (const int taken : taken_) {
      close(taken);
    }
    setrlimit(RLIMIT_NOFILE, &before_);
  }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  static constexpr std::size_t kRoom = 16;

  rlimit before_{};
  std::vector<int> taken_;
};

bool HaveAllGone(std::chrono::milliseconds limit) {
  return WaitUntil([] { return Children().empty(); }, limit);
}

KeepPolicy Policy() {
  KeepPolicy policy;
  policy.restart = Restart::kAtOnce;
  policy.first_pause = 5ms;
  policy.longest_pause = 50ms;
  policy.most_deaths = 1000;
  return policy;
}

class KeptTaskIsMended : public EndToEndTest {
 protected:
  // Ends once. Returns the call's place among the ends.
  std::size_t Ask(std::int32_t value) {
    const std::size_t place = ends_.size();
    ends_.push_back(0);
    outcomes_.emplace_back();
    const auto call = task_->Call(kEcho, value, CallOptions().Timeout(30s));
    call.Then([this, place](const Outcome<std::int32_t>& outcome) {
      ++ends_[place];
      outcomes_[place] = outcome;
    });
    return place;
  }
  bool IsServed(std::int32_t value) {
    const std::size_t place = Ask(value);
    return WaitUntil([this, place] { return outcomes_[place].has_value(); }) && *outcomes_[place] &&
           **outcomes_[place] == value;
  }
  // The task dies; then each start fails, until `cure` is called.
  void DieAndFail(const std::function<void()>& cause, const std::function<void()>& cure) {
    ASSERT_TRUE(IsServed(1));
    ASSERT_EQ(Children().size(), 1U);
    kill(Children().front(), SIGKILL);
    cause();
    ASSERT_TRUE(WaitUntil([this] {
      return task_->GetStatus().why &&
             task_->GetStatus().why->GetReason() == CallReason::kNotStarted;
    })) << "the start does not fail";
    Ask(2);
    cure();
    EXPECT_TRUE(
        WaitUntil([this] { return task_->GetStatus().state == TaskStatus::State::kConnected; }));
    EXPECT_TRUE(IsServed(3));
    EXPECT_THAT(ends_, testing::Each(1));
  }
  void End() {
    task_.reset();
    EXPECT_TRUE(IsOverInTime(HaveAllGone));
    EXPECT_THAT(SocketsBelow(folder_.GetPath()), IsEmpty());
  }

  std::vector<int> ends_;
  std::vector<std::optional<Outcome<std::int32_t>>> outcomes_;
  std::unique_ptr<KeptTask> task_ =
      std::make_unique<KeptTask>(*manager_wrapper_, "mortal", Policy());
};

TEST_F(KeptTaskIsMended, AfterAWantOfDescriptorsDuringItsRestart) {
  std::optional<NoDescriptors> want;
  DieAndFail([&] { want.emplace(); }, [&] { want.reset(); });
  End();
}

TEST_F(KeptTaskIsMended, AfterARuntimeFolderThatIsUnsafeDuringItsRestart) {
  const auto folder = folder_.GetPath() / "runtime-manager";
  constexpr mode_t kOpenToAll = 0777;
  constexpr mode_t kSafe = 0700;
  DieAndFail([&] { chmod(folder.c_str(), kOpenToAll); }, [&] { chmod(folder.c_str(), kSafe); });
  End();
}

TEST_F(KeptTaskIsMended, AfterAFullDiskDuringItsRestart) {
  const SmallDisk disk(folder_.GetPath() / "disk");
  if (!disk.WhyNot().empty()) {
    GTEST_SKIP() << disk.WhyNot();
  }
  const ScopedVariable runtime("XDG_RUNTIME_DIR", disk.GetPath().string());
  const auto fill = [&disk] {
    // The dead task's socket would give its place to the next one.
    while (StateOf(Children().front()) != 'Z') {
      std::this_thread::sleep_for(1ms);
    }
    for (const std::string& socket : SocketsBelow(disk.GetPath())) {
      std::filesystem::remove(socket);
    }
    disk.FillWithFiles();
  };
  DieAndFail(fill, [&disk] { disk.Clear(); });
  End();
}

TEST_F(KeptTaskIsMended, AfterAFaultThatRefusesItsRestart) {
  std::optional<ScopedVariable> faults;
  DieAndFail([&] { faults.emplace("RUNTIME_MANAGER_FAULTS", "mortal: refuse to start; seed 1"); },
             [&] { faults.reset(); });
  End();
}

TEST_F(KeptTaskIsMended, WhenItDiesAgainWhileItIsStarting) {
  constexpr int kDeaths = 10;
  ASSERT_TRUE(IsServed(1));
  for (int death = 0; death < kDeaths; ++death) {
    ASSERT_TRUE(WaitUntil([] { return !Children().empty(); }));
    kill(Children().front(), SIGKILL);
    Ask(death);
  }
  EXPECT_TRUE(WaitUntil([this] {
    return std::count(ends_.begin(), ends_.end(), 1) == static_cast<std::ptrdiff_t>(ends_.size());
  }));
  EXPECT_TRUE(WaitUntil(
      [this] { return task_->GetStatus().state == TaskStatus::State::kConnected && IsServed(2); }));
  EXPECT_THAT(ends_, testing::Each(1));
  End();
}

TEST_F(KeptTaskIsMended, NoMoreWhenItsManagerGoesInTheMiddle) {
  ASSERT_TRUE(IsServed(1));
  kill(Children().front(), SIGKILL);
  Ask(2);
  ASSERT_TRUE(
      WaitUntil([this] { return task_->GetStatus().state == TaskStatus::State::kStarting; }));
  Ask(3);
  manager_wrapper_.reset();
  EXPECT_TRUE(WaitUntil([this] { return ends_.back() == 1; }));
  EXPECT_THAT(ends_, testing::Each(1));
  End();
}

class Stop : public EndToEndTest {};

TEST_F(Stop, AtAnyMomentOfAStartLeavesNothing) {
  constexpr std::chrono::milliseconds kLongest(60);
  std::vector<std::shared_ptr<int>> ends;
  for (std::chrono::milliseconds moment(0); moment < kLongest; moment += 3ms) {
    KeptTask task(*manager_wrapper_, "mortal", Policy());
    const auto ended = std::make_shared<int>(0);
    ends.push_back(ended);
    task.Call(kEcho, 1).Then([ended](const Outcome<std::int32_t>& /*outcome*/) { ++*ended; });
    RunEvents(moment);
  }
  EXPECT_THAT(ends, testing::Each(testing::Pointee(1)));
  EXPECT_TRUE(IsOverInTime(HaveAllGone));
  EXPECT_THAT(SocketsBelow(folder_.GetPath()), IsEmpty());
}

TEST_F(Stop, DoesNotMeetTheStartsThatBeginMeanwhile) {
  constexpr int kTimes = 10;
  std::unique_ptr<Connection> connection = StartConnected("mortal");
  for (int time = 0; time < kTimes; ++time) {
    connection->client->SendNotify("nap", 20'000);  // it stops only afterwards
    connection.reset();
    connection = StartConnected("mortal");
    EXPECT_EQ(connection->Ask("echo", time), cw::EncodableValue(time));
  }
  connection.reset();
  EXPECT_TRUE(IsOverInTime(HaveAllGone));
}

}  // namespace
}  // namespace tarv::test

// More connections in one event loop than have a place of their own there: the others share one.
#include "many_connections.h"

#include <QtCore/QTimer>
#include <algorithm>

namespace kit {
namespace {

constexpr std::size_t kMany = 40;

// What has been heard of each.
class HeardConnections : public ManyConnections {
 protected:
  void Open() {
    ManyConnections::Open(kMany);
    heard_.assign(kMany, 0);
    for (std::size_t i = 0; i < kMany; ++i) {
      QObject::connect(ends_[i].get(), &TaskMessaging::messageReceived, [this, i] {
        ++heard_[i];
        ++all_heard_;
      });
    }
  }
  void SendToAll() {
    for (const int peer : peers_) {
      SendLine(peer, "{}");
    }
  }

  std::vector<int> heard_;
  int all_heard_ = 0;
};

// Those of the second round have the numbers of those that have gone.
TEST_F(HeardConnections, AreAllHeardAndSoAreThoseThatFollowThem) {
  for (int round = 0; round < 3; ++round) {
    Open();
    for (int count = 1; count <= 3; ++count) {
      SendToAll();
      EXPECT_TRUE(RunUntil([&] { return heard_ == std::vector<int>(kMany, count); }));
    }
    Close();
  }
}

// Takes the memory of what has just been destroyed, so that nobody finds it as it was.
std::vector<QByteArray> TakeWhatIsFree() {
  constexpr int kLargest = 2048;
  constexpr int kOfEachSize = 100;
  std::vector<QByteArray> taken;
  for (int size = 16; size <= kLargest; size += 16) {
    for (int i = 0; i < kOfEachSize; ++i) {
      taken.emplace_back(size, 'U');
    }
  }
  return taken;
}

// News of theirs has come by then.
TEST_F(HeardConnections, MayGoWhileOneOfThemIsHeard) {
  for (const std::size_t keeper : {std::size_t{0}, kMany / 2, kMany - 1}) {
    Open();
    int heard_by_then = 0;
    std::vector<QByteArray> taken;
    QObject::connect(ends_[keeper].get(), &TaskMessaging::messageReceived, [&, keeper] {
      for (std::size_t i = 0; i < kMany; ++i) {
        if (i != keeper) {
          ends_[i].reset();
        }
      }
      taken = TakeWhatIsFree();
      heard_by_then = all_heard_;
    });
    SendToAll();
    ASSERT_TRUE(RunUntil([&] { return heard_[keeper] == 1; }));
    RunFor(20);
    EXPECT_EQ(all_heard_, heard_by_then) << "one was heard after its end";
    SendLine(peers_[keeper], "{}");
    EXPECT_TRUE(RunUntil([&] { return heard_[keeper] == 2; }));
    Close();
  }
}

TEST_F(HeardConnections, LeaveTimeForTheOthersAndForTimersHoweverMuchComesOnOne) {
  constexpr int kFlood = 20'000;
  for (const std::size_t flooded : {std::size_t{0}, kMany - 1}) {
    Open();
    int ticks = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&ticks] { ++ticks; });
    // Each message brings the next one.
    QObject::connect(ends_[flooded].get(), &TaskMessaging::messageReceived, [this, flooded] {
      if (heard_[flooded] < kFlood) {
        SendLine(peers_[flooded], "{}");
      }
    });
    timer.start(1);
    SendToAll();
    EXPECT_TRUE(
        RunUntil([&] { return ticks > 0 && std::count(heard_.begin(), heard_.end(), 0) == 0; }));
    EXPECT_LT(heard_[flooded], kFlood) << "they have waited for the end of the flood";
    Close();
  }
}

}  // namespace
}  // namespace kit

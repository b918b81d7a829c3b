// What connections cost the event loop that they are in.
#include "end_to_end/watched.h"

#include <QtCore/QEventLoop>
#include <QtCore/QTimer>

#include "many_connections.h"

namespace kit {
namespace {

class WatchedDescriptors : public ManyConnections {
 protected:
  // How many descriptors one turn of an event loop looks at.
  static std::size_t CountInATurn() {
    QEventLoop().processEvents();
    const std::size_t before = tarv::test::CountWatched();
    QEventLoop().processEvents();
    return tarv::test::CountWatched() - before;
  }
};

// Some have places of their own, which costs least for a few; the others share one.
TEST_F(WatchedDescriptors, AreNoMoreForHundredsOfConnectionsThanForAFew) {
  constexpr std::size_t kPlaces = 16;
  const std::size_t of_none = CountInATurn();
  Open(1);
  const std::size_t of_one = CountInATurn();
  EXPECT_EQ(of_one, of_none + 1);
  for (const std::size_t more : {63, 199}) {
    Open(more);
    EXPECT_LE(CountInATurn(), of_none + kPlaces + 1) << more;
    Close(1);
    EXPECT_EQ(CountInATurn(), of_one) << "an empty place is left behind";
  }
}

// A shared place costs a system call more for each message.
TEST_F(WatchedDescriptors, OfConnectionsThatFollowManyOthersAreTheirOwn) {
  Open(1);
  const std::size_t of_one = CountInATurn();
  for (int round = 0; round < 3; ++round) {
    Open(15);
    Close(1);
  }
  Open(2);
  EXPECT_EQ(CountInATurn(), of_one + 2);
}

// A task waits with its words until this process's standard error takes them.
TEST_F(WatchedDescriptors, AreNotLookedAtAgainAndAgainForWhatHasToWait) {
  constexpr int kWords = 300'000;
  AddShellTask("task", "head -c 300000 /dev/zero | tr '\\0' x >&2; exec sleep 60");
  const StderrPipe pipe;
  pipe.Fill();
  Task task("task");
  ExpectStarts(task);
  RunFor(300);
  const std::size_t before = tarv::test::CountWatched();
  QEventLoop loop;
  QTimer::singleShot(500, &loop, &QEventLoop::quit);
  loop.exec();
  // Twenty turns a second would do.
  EXPECT_LE(tarv::test::CountWatched() - before, 300U);
  int forwarded = 0;
  EXPECT_TRUE(RunUntil([&] { return (forwarded += pipe.Read(1 << 20).count('x')) == kWords; }));
}

}  // namespace
}  // namespace kit

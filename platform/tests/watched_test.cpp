// What connections cost the event loop that they are in.
#include "end_to_end/watched.h"

#include <QtCore/QEventLoop>

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
  const std::size_t before = CountInATurn();
  for (const std::size_t count : {1, 64, 200}) {
    Open(count);
    const std::size_t watched = CountInATurn();
    EXPECT_GT(watched, before);
    EXPECT_LE(watched, before + kPlaces + 1) << count;
    Close();
    EXPECT_EQ(CountInATurn(), before) << "none is left behind";
  }
}

// A shared place costs a system call more for each message.
TEST_F(WatchedDescriptors, OfConnectionsThatFollowManyOthersAreTheirOwn) {
  Open(1);
  const std::size_t of_one = CountInATurn();
  Close();
  for (int round = 0; round < 3; ++round) {
    Open(15);
    Close();
  }
  Open(2);
  EXPECT_EQ(CountInATurn(), of_one + 1);
}

}  // namespace
}  // namespace kit

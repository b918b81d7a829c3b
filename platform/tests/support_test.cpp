// The texts that the whole host shares.
#include "../host/support.h"

#include <gtest/gtest.h>

#include <csignal>

namespace RuntimeManager::host {
namespace {

TEST(DurationText, IsAsAPersonSaysIt) {
  EXPECT_EQ(DurationText(0), "0 ms");
  EXPECT_EQ(DurationText(999), "999 ms");
  EXPECT_EQ(DurationText(1000), "1.0 s");
  EXPECT_EQ(DurationText(1299), "1.2 s");
  EXPECT_EQ(DurationText(59'999), "59.9 s");
  EXPECT_EQ(DurationText(60'000), "1 min 0 s");
  EXPECT_EQ(DurationText(3'599'999), "59 min 59 s");
  EXPECT_EQ(DurationText(3'600'000), "1 h 0 min");
  EXPECT_EQ(DurationText(93'900'000), "26 h 5 min");
}

TEST(SignalText, HasTheNumberAndTheName) {
  EXPECT_EQ(SignalText(SIGKILL), "9 (SIGKILL)");
  EXPECT_EQ(SignalText(SIGSEGV), "11 (SIGSEGV)");
  EXPECT_EQ(SignalText(SIGRTMIN + 2), QString("%1 (SIGRTMIN+2)").arg(SIGRTMIN + 2));
  EXPECT_EQ(SignalText(0), "0 (of no name)");
}

}  // namespace
}  // namespace RuntimeManager::host

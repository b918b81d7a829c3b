#include "../src/range.h"

#include <gtest/gtest.h>

// It looks neither at what lies below the range nor at the count of calls.
TEST(Range, KeepsWhatLiesAboveItOut) {
  int calls = 0;
  EXPECT_EQ(counting::Range(2, 5).Clamp(4, &calls), 4);
  EXPECT_EQ(counting::Range(2, 5).Clamp(7, &calls), 5);
}

TEST(Range, KnowsItsLength) { EXPECT_EQ(counting::Range(2, 5).Length(), 3); }

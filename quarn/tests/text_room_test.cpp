#include <gtest/gtest.h>
#include <quarn/internal/text_room.h>

#include <string>
#include <utility>

namespace {

using quarn::TextRoom;

std::string MakeText(std::size_t size) {
  std::string text;
  text.reserve(size);
  text = "some text";
  return text;
}

TEST(TextRoom, GivesALargeTextsMemoryToTheNext) {
  TextRoom room;
  std::string text = MakeText(TextRoom::kLarge);
  const void* const memory = text.data();
  room.Give(std::move(text));
  const std::string next = room.Take();
  EXPECT_TRUE(next.empty());
  EXPECT_EQ(next.data(), memory);
  EXPECT_GE(next.capacity(), TextRoom::kLarge);
}

TEST(TextRoom, GivesEachMemoryOnce) {
  TextRoom room;
  room.Give(MakeText(TextRoom::kLarge));
  const std::string first = room.Take();
  EXPECT_LT(room.Take().capacity(), TextRoom::kLarge);
}

TEST(TextRoom, KeepsNoSmallTexts) {
  TextRoom room;
  room.Give(MakeText(TextRoom::kLarge - 1));
  EXPECT_LT(room.Take().capacity(), TextRoom::kLarge - 1);
}

TEST(TextRoom, KeepsAHugeTextOnlyWhenItIsNotAlone) {
  TextRoom room;
  room.Give(MakeText(TextRoom::kHuge + 1));
  EXPECT_LT(room.Take().capacity(), TextRoom::kLarge);
  room.Give(MakeText(TextRoom::kHuge + 1));
  EXPECT_GT(room.Take().capacity(), TextRoom::kHuge);
  room.GiveBackIdle(TextRoom::Clock::now() + 2 * TextRoom::kKeepTime);
  room.Give(MakeText(TextRoom::kHuge + 1));
  EXPECT_LT(room.Take().capacity(), TextRoom::kLarge);
}

TEST(TextRoom, KeepsNoMoreThanItsBound) {
  TextRoom room;
  room.Give(MakeText(TextRoom::kMostKept + 1));
  room.Give(MakeText(TextRoom::kMostKept + 1));
  EXPECT_LT(room.Take().capacity(), TextRoom::kLarge);
}

TEST(TextRoom, KeepsTheLargerOfTwo) {
  TextRoom room;
  room.Give(MakeText(3 * TextRoom::kLarge));
  room.Give(MakeText(TextRoom::kLarge));
  EXPECT_GE(room.Take().capacity(), 3 * TextRoom::kLarge);
  room.Give(MakeText(TextRoom::kLarge));
  room.Give(MakeText(3 * TextRoom::kLarge));
  EXPECT_GE(room.Take().capacity(), 3 * TextRoom::kLarge);
}

TEST(TextRoom, GivesBackWhatNobodyHasUsedForTheTime) {
  TextRoom room;
  const auto before = TextRoom::Clock::now();
  room.Give(MakeText(TextRoom::kLarge));
  const auto left = room.GiveBackIdle(before + TextRoom::kKeepTime);
  ASSERT_TRUE(left.has_value());
  EXPECT_GT(*left, TextRoom::Clock::duration::zero());
  EXPECT_FALSE(room.GiveBackIdle(before + TextRoom::kKeepTime + *left));
  EXPECT_LT(room.Take().capacity(), TextRoom::kLarge);
}

TEST(TextRoom, IsInUseWhileATextIsOut) {
  TextRoom room;
  const auto before = TextRoom::Clock::now();
  room.Take();
  EXPECT_TRUE(room.GiveBackIdle(before + TextRoom::kKeepTime));
}

TEST(TextRoom, GivesBackAtOnceWhenItIsTold) {
  TextRoom room;
  room.Give(MakeText(TextRoom::kLarge));
  room.GiveBack();
  EXPECT_FALSE(room.GiveBackIdle());
  EXPECT_LT(room.Take().capacity(), TextRoom::kLarge);
}

}  // namespace

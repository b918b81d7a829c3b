#include <gtest/gtest.h>
#include <quarn/buffer_view.h>
#include <quarn/result.h>

#include <cstddef>

extern "C" std::size_t QuarnTestSizeOfViewInC(void);

namespace {

TEST(QuarnBufferView, IsTheSameThreeEightByteFieldsInCAndCpp) {
  EXPECT_EQ(sizeof(QuarnBufferView), QuarnTestSizeOfViewInC());
  EXPECT_EQ(sizeof(QuarnBufferView), 24U);
  EXPECT_EQ(offsetof(QuarnBufferView, struct_size), 0U);
  EXPECT_EQ(offsetof(QuarnBufferView, data), 8U);
  EXPECT_EQ(offsetof(QuarnBufferView, size), 16U);
}

TEST(QuarnResult, KeepsTheNumbersThatCrossTheCInterface) {
  EXPECT_EQ(QUARN_RESULT_SUCCESS, 0);
  EXPECT_EQ(QUARN_RESULT_FAILURE, 1);
  EXPECT_EQ(QUARN_RESULT_INVALID_ARGUMENT, 2);
  EXPECT_EQ(QUARN_RESULT_REFUSED, 3);
}

}  // namespace

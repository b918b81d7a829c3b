// Programs that were compiled against the released headers, with today's library.
#include <gtest/gtest.h>

#include "kit/service.h"
#include "v0.1/program.h"

namespace tarv::test {
namespace {

class OldProgram : public ServiceTest {};

TEST_F(OldProgram, Of010StartsATaskTalksToItAndEndsIt) {
  ASSERT_TRUE(OldProgramStart());
  EXPECT_TRUE(WaitUntil([] { return OldProgramHeard()->released != 0; }));
  EXPECT_TRUE(OldProgramHeard()->started);
  EXPECT_TRUE(OldProgramHeard()->answered);
  EXPECT_TRUE(OldProgramHeard()->disconnected);
}

}  // namespace
}  // namespace tarv::test

#include <gtest/gtest.h>
#include <quarn/dispatcher.h>

#include <memory>

#include "support/capture.h"
#include "support/log_line.h"

namespace {

using quarn::IDispatcher;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;

TEST(EmptyDispatcher, WarnsAtEachCallAndRunsNothing) {
  const auto dispatcher = IDispatcher::CreateEmpty();
  for (int i = 0; i < 2; ++i) {
    bool ran = false;
    EXPECT_THAT(StdoutOf([&] { dispatcher->Invoke([&ran] { ran = true; }, 0); }),
                IsLogLine("warn", "EmptyDispatcher::Invoke(): no-op method invoked."));
    EXPECT_FALSE(ran);
  }
}

TEST(EmptyDispatcher, TakesAnEmptyTask) {
  EXPECT_THAT(StdoutOf([] { IDispatcher::CreateEmpty()->Invoke(nullptr, 7); }),
              IsLogLine("warn", "EmptyDispatcher::Invoke(): no-op method invoked."));
}

TEST(EmptyDispatcher, IsAnotherInstanceForEachCaller) {
  const auto first = IDispatcher::CreateEmpty();
  const auto second = IDispatcher::CreateEmpty();
  EXPECT_NE(first, second);
  EXPECT_EQ(first.use_count(), 1);
}

}  // namespace

#include <gtest/gtest.h>
#include <quarn/dispatcher.h>

#include <functional>
#include <memory>

#include "support/capture.h"
#include "support/log_line.h"
#include "virtual_table.h"

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

TEST(IDispatcher, HasInvokeInItsThirdSlot) {
  const auto dispatcher = IDispatcher::CreateEmpty();
  IDispatcher* const interface = dispatcher.get();
  const std::function<void()> task = [] {};
  using Call = void(IDispatcher*, const std::function<void()>&, unsigned int);
  EXPECT_THAT(StdoutOf([&] { VirtualFunction<Call>(interface, 2)(interface, task, 0); }),
              IsLogLine("warn", "EmptyDispatcher::Invoke(): no-op method invoked."));
}

}  // namespace

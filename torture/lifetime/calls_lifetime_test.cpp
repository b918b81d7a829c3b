// Every callback of the layer of calls, and in it every way to end and to use what it has.
#include <gtest/gtest.h>

#include "calls_world.h"

namespace tarv::torture {
namespace {

class CallsLifetimes : public testing::TestWithParam<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(Each, CallsLifetimes,
                         testing::Range(std::size_t{0}, CallsWorld::kDeeds.size()),
                         [](const auto& test) {
                           return TestNameOf(CallsWorld::kDeeds[test.param].name);
                         });

TEST_P(CallsLifetimes, InEachCallbackBeforeEachOrderOfEnds) {
  Course<CallsWorld>::Play(GetParam());
}

}  // namespace
}  // namespace tarv::torture

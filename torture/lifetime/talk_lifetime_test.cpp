// Every callback of clients and servers, and in it every way to end, to use and to mistake them.
#include <gtest/gtest.h>

#include "talk_world.h"

namespace tarv::torture {
namespace {

class TalkLifetimes : public testing::TestWithParam<std::size_t> {};

INSTANTIATE_TEST_SUITE_P(Each, TalkLifetimes,
                         testing::Range(std::size_t{0}, TalkWorld::kDeeds.size()),
                         [](const auto& test) {
                           return TestNameOf(TalkWorld::kDeeds[test.param].name);
                         });

TEST_P(TalkLifetimes, InEachCallbackBeforeEachOrderOfEnds) { Course<TalkWorld>::Play(GetParam()); }

}  // namespace
}  // namespace tarv::torture

// Every callback of the C interface, and in it every way to end, to use and to mistake what there is.
#include <gtest/gtest.h>

#include <QCoreApplication>

#include "service_world.h"

namespace tarv::torture {
namespace {

class EachAction : public testing::TestWithParam<std::size_t> {
 private:
  int argument_count_ = 1;
  char program_[18] = "service_lifetimes";
  char* arguments_[2] = {program_, nullptr};
  QCoreApplication application_{argument_count_, arguments_};
};

std::string NameOfAction(const testing::TestParamInfo<std::size_t>& test) {
  return TestNameOf(ServiceWorld::kDeeds[test.param].name);
}

#ifdef FAKE_OPTIONAL_MEMBERS
INSTANTIATE_TEST_SUITE_P(OnAFullPlatform, EachAction,
                         testing::Range(std::size_t{0}, ServiceWorld::kDeeds.size()), NameOfAction);
#else
INSTANTIATE_TEST_SUITE_P(OnAPlainPlatform, EachAction,
                         testing::Range(std::size_t{0}, ServiceWorld::kDeeds.size()), NameOfAction);
#endif

TEST_P(EachAction, InEachCallbackBeforeEachOrderOfEnds) { Course<ServiceWorld>::Play(GetParam()); }

}  // namespace
}  // namespace tarv::torture

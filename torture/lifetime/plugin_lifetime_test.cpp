// Every callback of a plug-in's objects, and in it every way to end, to use and to mistake them.
#include <gtest/gtest.h>

#include <QCoreApplication>

#include "plugin_world.h"

namespace tarv::torture {
namespace {

class PluginLifetimes : public testing::TestWithParam<std::size_t> {
 private:
  int argument_count_ = 1;
  char program_[17] = "plugin_lifetimes";
  char* arguments_[2] = {program_, nullptr};
  QCoreApplication application_{argument_count_, arguments_};
};

INSTANTIATE_TEST_SUITE_P(Each, PluginLifetimes,
                         testing::Range(std::size_t{0}, PluginWorld::kDeeds.size()),
                         [](const auto& test) {
                           return TestNameOf(PluginWorld::kDeeds[test.param].name);
                         });

TEST_P(PluginLifetimes, InEachCallbackBeforeEachOrderOfEnds) {
  Course<PluginWorld>::Play(GetParam());
}

}  // namespace
}  // namespace tarv::torture

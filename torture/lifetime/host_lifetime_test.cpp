// Every callback of the runtime manager's own objects, and in it every way to end and to use them.
#include <gmock/gmock.h>

#include <QCoreApplication>

#include "host_world.h"
#include "kit/service.h"
#include "kit/surroundings.h"

namespace tarv::torture {
namespace {

class HostLifetimes : public testing::TestWithParam<std::size_t> {
 protected:
  ~HostLifetimes() override {
    EXPECT_THAT(test::SocketsBelow(folder_.GetPath()), testing::IsEmpty());
  }

 private:
  const test::ScopedVariable task_path_{"RUNTIME_MANAGER_TASK_PATH", test::TaskFolder()};
  const test::RuntimeFolder folder_;
  int argument_count_ = 1;
  char program_[15] = "host_lifetimes";
  char* arguments_[2] = {program_, nullptr};
  QCoreApplication application_{argument_count_, arguments_};
};

INSTANTIATE_TEST_SUITE_P(Each, HostLifetimes,
                         testing::Range(std::size_t{0}, HostWorld::kDeeds.size()),
                         [](const auto& test) {
                           return TestNameOf(HostWorld::kDeeds[test.param].name);
                         });

TEST_P(HostLifetimes, InEachCallbackBeforeEachOrderOfEnds) { Course<HostWorld>::Play(GetParam()); }

}  // namespace
}  // namespace tarv::torture

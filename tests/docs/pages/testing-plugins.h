// What docs/testing-plugins.md leaves out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tarv/calls/method.h>
#include <tarv/calls/value.h>
#include <tarv/testing/loopback.h>
#include <tarv/testing/matchers.h>
#include <tarv/testing/real_task.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace word_count {
struct Texts {
  std::vector<std::string> texts;
};
struct Totals {
  std::int64_t total;
  std::vector<std::int32_t> each;
};
TARV_VALUE(Texts, texts)
TARV_VALUE(Totals, total, each)
inline constexpr tarv::Method<Totals(Texts)> kCount{"count"};
inline constexpr tarv::Method<void()> kWait{"wait"};
}  // namespace word_count

class WordCount {
 public:
  WordCount(const std::shared_ptr<vorpc::IServer>& server, std::shared_ptr<tarv::Loop> loop);
};

using namespace std::chrono_literals;
using tarv::testing::Answers;
using tarv::testing::TaskKilled;
using tarv::testing::TimedOut;
using tarv::testing::Way;
using tarv::testing::World;
using testing::HasSubstr;
using testing::IsEmpty;
using word_count::kCount;
using word_count::kWait;
using word_count::Totals;

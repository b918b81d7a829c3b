#include <gtest/gtest.h>
#include <quarn/slot.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

struct BoolSlot {
  std::uint64_t size;
  void (*callback)(void* user_data, bool value);
  void (*release)(void* user_data);
  void* user_data;
};

struct PlainSlot {
  std::uint64_t size;
  void (*callback)(void* user_data);
  void (*release)(void* user_data);
  void* user_data;
};

TEST(CreateSlot, StatesTheSlotsSizeAndFillsEveryField) {
  const auto slot = quarn::CreateSlot<BoolSlot, bool>([](bool) {});
  EXPECT_EQ(slot.size, sizeof(BoolSlot));
  EXPECT_NE(slot.callback, nullptr);
  EXPECT_NE(slot.release, nullptr);
  EXPECT_NE(slot.user_data, nullptr);
  slot.release(slot.user_data);
}

TEST(CreateSlot, ForwardsTheArgumentsToTheFunction) {
  std::vector<bool> heard;
  const auto slot =
      quarn::CreateSlot<BoolSlot, bool>([&heard](bool value) { heard.push_back(value); });
  slot.callback(slot.user_data, true);
  slot.callback(slot.user_data, false);
  slot.release(slot.user_data);
  EXPECT_EQ(heard, (std::vector<bool>{true, false}));
}

TEST(CreateSlot, MakesSlotsWithoutArguments) {
  int calls = 0;
  const auto slot = quarn::CreateSlot<PlainSlot>([&calls] { ++calls; });
  slot.callback(slot.user_data);
  slot.release(slot.user_data);
  EXPECT_EQ(calls, 1);
}

// Counts how often a captured value dies while it is the one that owns the count.
class DeathCounter {
 public:
  explicit DeathCounter(int& deaths) : deaths_(&deaths) {}
  DeathCounter(const DeathCounter& other) = default;
  DeathCounter(DeathCounter&& other) noexcept : deaths_(std::exchange(other.deaths_, nullptr)) {}
  DeathCounter& operator=(const DeathCounter&) = delete;
  DeathCounter& operator=(DeathCounter&&) = delete;
  ~DeathCounter() {
    if (deaths_ != nullptr) {
      ++*deaths_;
    }
  }

 private:
  int* deaths_;
};

TEST(CreateSlot, FreesTheFunctionExactlyOnceWhenItIsReleased) {
  int deaths = 0;
  std::function<void(bool)> function = [counter = DeathCounter(deaths)](bool) {};
  const auto slot = quarn::CreateSlot<BoolSlot, bool>(std::move(function));
  slot.callback(slot.user_data, true);
  EXPECT_EQ(deaths, 0);
  slot.release(slot.user_data);
  EXPECT_EQ(deaths, 1);
}

TEST(CreateSlot, MovesTheFunctionAndDoesNotCopyIt) {
  auto captured = std::make_shared<int>(1);
  std::function<void(bool)> function = [captured](bool) {};
  const auto slot = quarn::CreateSlot<BoolSlot, bool>(std::move(function));
  EXPECT_EQ(captured.use_count(), 2);
  slot.release(slot.user_data);
  EXPECT_EQ(captured.use_count(), 1);
}

TEST(CreateSlot, IgnoresNullUserData) {
  const auto slot = quarn::CreateSlot<BoolSlot, bool>([](bool) { FAIL() << "it was called"; });
  EXPECT_NO_THROW(slot.callback(nullptr, true));
  EXPECT_NO_THROW(slot.release(nullptr));
  slot.release(slot.user_data);
}

TEST(CreateSlot, RaisesBadFunctionCallForAnEmptyFunction) {
  const auto slot = quarn::CreateSlot<BoolSlot, bool>(std::function<void(bool)>());
  EXPECT_THROW(slot.callback(slot.user_data, true), std::bad_function_call);
  slot.release(slot.user_data);
}

}  // namespace

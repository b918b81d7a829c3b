#include <gtest/gtest.h>
#include <quarn/listener.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "virtual_table.h"

namespace {

using IntListener = quarn::CppStyleListener<int>;

TEST(CppStyleListener, StaysUsableAfterInvoke) {
  std::vector<int> heard;
  const IntListener listener([&heard](int value) { heard.push_back(value); });
  listener.Invoke(1);
  listener.Invoke(2);
  EXPECT_EQ(heard, (std::vector<int>{1, 2}));
}

TEST(CppStyleListener, CallsItsTargetOnceForInvokeOnceAndInvoke) {
  std::vector<int> heard;
  IntListener listener([&heard](int value) { heard.push_back(value); });
  listener.InvokeOnce(1);
  listener.Invoke(2);
  listener.InvokeOnce(3);
  EXPECT_EQ(heard, (std::vector<int>{1}));
}

TEST(CppStyleListener, DestroysItsTargetAfterInvokeOnce) {
  auto captured = std::make_shared<int>(5);
  const std::weak_ptr<int> watched = captured;
  bool alive_inside = false;
  IntListener listener([captured = std::move(captured), watched, &alive_inside](int) {
    alive_inside = !watched.expired() && *captured == 5;
  });
  listener.InvokeOnce(1);
  EXPECT_TRUE(alive_inside);
  EXPECT_TRUE(watched.expired());
}

TEST(CppStyleListener, KeepsTheStateOfItsTargetFromCallToCall) {
  std::vector<int> heard;
  const IntListener listener([&heard, calls = 0](int) mutable { heard.push_back(++calls); });
  listener.Invoke(0);
  listener.Invoke(0);
  listener.Invoke(0);
  EXPECT_EQ(heard, (std::vector<int>{1, 2, 3}));
}

TEST(CppStyleListener, HasLetItsTargetGoAfterAOneShotCallThatThrows) {
  auto captured = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = captured;
  int calls = 0;
  IntListener listener([captured = std::move(captured), &calls](int) {
    ++calls;
    throw std::runtime_error("from the target");
  });
  EXPECT_THROW(listener.InvokeOnce(1), std::runtime_error);
  EXPECT_TRUE(watched.expired());
  EXPECT_NO_THROW(listener.Invoke(2));
  EXPECT_NO_THROW(listener.InvokeOnce(3));
  EXPECT_EQ(calls, 1);
}

TEST(IListener, HasInvokeInItsThirdSlotAndInvokeOnceInItsFourth) {
  std::vector<int> heard;
  IntListener listener([&heard](int value) { heard.push_back(value); });
  quarn::IListener<int>* const interface = &listener;
  using Call = void(const void*, int);
  VirtualFunction<Call>(interface, 2)(interface, 1);
  VirtualFunction<Call>(interface, 2)(interface, 2);
  VirtualFunction<Call>(interface, 3)(interface, 3);
  VirtualFunction<Call>(interface, 2)(interface, 4);
  EXPECT_EQ(heard, (std::vector<int>{1, 2, 3}));
}

TEST(CppStyleListener, SkipsAnEmptyTarget) {
  IntListener listener(nullptr);
  EXPECT_NO_THROW(listener.Invoke(1));
  EXPECT_NO_THROW(listener.InvokeOnce(1));
  IntListener from_empty{std::function<void(const int&)>()};
  EXPECT_NO_THROW(from_empty.Invoke(1));
}

TEST(CppStyleListener, TakesAnyNumberOfArguments) {
  std::string heard;
  quarn::CppStyleListener<>([&heard] { heard += "none;"; }).Invoke();
  const quarn::CppStyleListener<int, std::string> listener(
      [&heard](int number, const std::string& text) { heard += std::to_string(number) + text; });
  listener.Invoke(2, " arguments");
  EXPECT_EQ(heard, "none;2 arguments");
}

TEST(CppStyleListener, PassesOnWhatItsTargetThrows) {
  IntListener listener([](int) { throw std::runtime_error("from the target"); });
  EXPECT_THROW(listener.Invoke(1), std::runtime_error);
  EXPECT_THROW(listener.InvokeOnce(1), std::runtime_error);
  EXPECT_NO_THROW(listener.Invoke(1));
}

TEST(CppStyleListener, MayBeInvokedFromInsideItsTarget) {
  std::vector<int> heard;
  std::function<void(int)> again;
  IntListener listener([&](const int& value) {
    heard.push_back(value);
    if (value > 0) {
      again(value - 1);
    }
  });
  again = [&listener](int value) { listener.Invoke(value); };
  listener.Invoke(2);
  EXPECT_EQ(heard, (std::vector<int>{2, 1, 0}));
}

TEST(CppStyleListener, HearsNothingMoreFromInsideInvokeOnce) {
  int calls = 0;
  std::function<void()> again;
  IntListener listener([&](int) {
    ++calls;
    again();
  });
  again = [&listener] {
    listener.Invoke(1);
    listener.InvokeOnce(1);
  };
  listener.InvokeOnce(0);
  EXPECT_EQ(calls, 1);
}

TEST(CppStyleListener, MayDieInsideItsTarget) {
  auto captured = std::make_shared<int>(5);
  std::unique_ptr<IntListener> listener;
  int seen = 0;
  const auto target = [&, captured](int) {
    listener.reset();
    seen += *captured;
  };
  listener = std::make_unique<IntListener>(target);
  listener->Invoke(1);
  EXPECT_EQ(listener, nullptr);
  listener = std::make_unique<IntListener>(target);
  listener->InvokeOnce(1);
  EXPECT_EQ(listener, nullptr);
  EXPECT_EQ(seen, 10);
}

TEST(CppStyleListener, IsDeliveredOnceByInvokeOnceFromSeveralThreads) {
  for (int round = 0; round < 200; ++round) {
    std::atomic<int> calls{0};
    IntListener listener([&calls](int) { ++calls; });
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    threads.reserve(3);
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&listener, &go] {
        while (!go) {
        }
        listener.InvokeOnce(1);
      });
    }
    go = true;
    for (auto& thread : threads) {
      thread.join();
    }
    ASSERT_EQ(calls, 1);
  }
}

TEST(CppStyleListener, MayBeInvokedWhileAnotherThreadInvokesItOnce) {
  for (int round = 0; round < 100; ++round) {
    std::atomic<int> once{0};
    IntListener listener([&once](int value) { once += value; });
    std::thread other([&listener] { listener.InvokeOnce(1); });
    for (int i = 0; i < 20; ++i) {
      listener.Invoke(0);
    }
    other.join();
    ASSERT_EQ(once, 1);
  }
}

TEST(CppStyleListener, IsWholeForAllThreadsThatInvokeItAtOnce) {
  const std::string text = "a text too long to be stored in place";
  for (int round = 0; round < 100; ++round) {
    std::atomic<int> once{0};
    std::atomic<int> torn{0};
    IntListener listener([&, kept = text](int value) {
      once += value;
      torn += kept == text ? 0 : 1;
    });
    std::vector<std::thread> threads;
    threads.reserve(2);
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([&listener] {
        for (int call = 0; call < 50; ++call) {
          listener.Invoke(0);
        }
      });
    }
    listener.Invoke(0);
    listener.InvokeOnce(1);
    for (auto& thread : threads) {
      thread.join();
    }
    ASSERT_EQ(once, 1);
    ASSERT_EQ(torn, 0);
  }
}

// What happened to the user data of a slot.
struct UserData {
  std::vector<int> heard;
  int releases = 0;
  std::function<void()> inside;
};

struct IntSlot {
  std::uint64_t size;
  void (*callback)(void* user_data, int value);
  void (*release)(void* user_data);
  void* user_data;
};

void Hear(void* user_data, int value) {
  auto* const data = static_cast<UserData*>(user_data);
  data->heard.push_back(value);
  if (data->inside) {
    data->inside();
  }
}

void CountRelease(void* user_data) { ++static_cast<UserData*>(user_data)->releases; }

IntSlot SlotFor(UserData& data) { return {sizeof(IntSlot), &Hear, &CountRelease, &data}; }

using IntCListener = quarn::CStyleListener<int>;

TEST(CStyleListener, CallsItsCallbackWithTheUserDataEachTime) {
  UserData data;
  const IntSlot slot = SlotFor(data);
  const IntCListener listener(&slot);
  listener.Invoke(1);
  listener.Invoke(2);
  EXPECT_EQ(data.heard, (std::vector<int>{1, 2}));
  EXPECT_EQ(data.releases, 0);
}

TEST(CStyleListener, ReleasesItsUserDataAfterInvokeOnceAndNotAgain) {
  UserData data;
  const IntSlot slot = SlotFor(data);
  {
    IntCListener listener(&slot);
    data.inside = [&data] { EXPECT_EQ(data.releases, 0); };
    listener.InvokeOnce(1);
    EXPECT_EQ(data.releases, 1);
    listener.InvokeOnce(2);
    listener.Invoke(3);
  }
  EXPECT_EQ(data.heard, (std::vector<int>{1}));
  EXPECT_EQ(data.releases, 1);
}

TEST(CStyleListener, ReleasesItsUserDataWhenItDiesUnheard) {
  UserData data;
  const IntSlot slot = SlotFor(data);
  {
    const IntCListener listener(&slot);
    EXPECT_EQ(data.releases, 0);
  }
  EXPECT_TRUE(data.heard.empty());
  EXPECT_EQ(data.releases, 1);
}

TEST(CStyleListener, ReleasesAlsoWithoutACallback) {
  UserData data;
  const IntSlot slot{sizeof(IntSlot), nullptr, &CountRelease, &data};
  IntCListener listener(&slot);
  listener.Invoke(1);
  EXPECT_EQ(data.releases, 0);
  listener.InvokeOnce(2);
  EXPECT_EQ(data.releases, 1);
}

TEST(CStyleListener, NeedsNoReleaseFunction) {
  UserData data;
  const IntSlot slot{sizeof(IntSlot), &Hear, nullptr, &data};
  IntCListener listener(&slot);
  listener.InvokeOnce(1);
  EXPECT_EQ(data.heard, (std::vector<int>{1}));
}

TEST(CStyleListener, DoesNothingForANullSlot) {
  IntCListener listener(static_cast<const IntSlot*>(nullptr));
  EXPECT_NO_THROW(listener.Invoke(1));
  EXPECT_NO_THROW(listener.InvokeOnce(1));
}

TEST(CStyleListener, TakesNoFieldThatTheSlotsSizeDoesNotCover) {
  UserData data;
  IntSlot slot = SlotFor(data);
  slot.size = 24;  // callback and release, no user data
  slot.callback = [](void* user_data, int) { EXPECT_EQ(user_data, nullptr); };
  slot.release = [](void* user_data) { EXPECT_EQ(user_data, nullptr); };
  IntCListener(&slot).InvokeOnce(1);
  slot = SlotFor(data);
  slot.size = 15;
  IntCListener(&slot).InvokeOnce(1);
  EXPECT_TRUE(data.heard.empty());
  EXPECT_EQ(data.releases, 0);
}

TEST(CStyleListener, ReleasesWhenItsCallbackThrows) {
  UserData data;
  const IntSlot slot = SlotFor(data);
  data.inside = [] { throw std::runtime_error("from the callback"); };
  IntCListener listener(&slot);
  EXPECT_THROW(listener.Invoke(1), std::runtime_error);
  EXPECT_EQ(data.releases, 0);
  EXPECT_THROW(listener.InvokeOnce(2), std::runtime_error);
  EXPECT_EQ(data.releases, 1);
  EXPECT_NO_THROW(listener.Invoke(3));
  EXPECT_NO_THROW(listener.InvokeOnce(4));
  EXPECT_EQ(data.heard, (std::vector<int>{1, 2}));
}

TEST(CStyleListener, ReleasesNothingInsideItsCallback) {
  UserData data;
  const IntSlot slot = SlotFor(data);
  IntCListener listener(&slot);
  data.inside = [&] {
    listener.InvokeOnce(2);
    listener.Invoke(3);
    EXPECT_EQ(data.releases, 0);
  };
  listener.InvokeOnce(1);
  EXPECT_EQ(data.heard, (std::vector<int>{1}));
  EXPECT_EQ(data.releases, 1);
}

TEST(CStyleListener, MayDieInsideItsCallback) {
  UserData data;
  const IntSlot slot = SlotFor(data);
  auto listener = std::make_unique<IntCListener>(&slot);
  data.inside = [&] {
    const int before = data.releases;
    listener.reset();
    EXPECT_EQ(data.releases, before);
  };
  listener->InvokeOnce(1);
  EXPECT_EQ(data.releases, 1);
  listener = std::make_unique<IntCListener>(&slot);
  listener->Invoke(1);
  EXPECT_EQ(data.releases, 2);
}

TEST(CStyleListener, KeepsItsUserDataWhileACallbackThatTakesTheLastCallRuns) {
  UserData data;
  const IntSlot slot = SlotFor(data);
  IntCListener listener(&slot);
  int calls = 0;
  data.inside = [&] {
    const int before = data.releases;
    if (++calls == 1) {
      listener.InvokeOnce(2);
    }
    EXPECT_EQ(data.releases, before);
  };
  listener.Invoke(1);
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(data.releases, 1);
}

}  // namespace

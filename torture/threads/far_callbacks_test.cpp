// Every callback of a task's server, and of a URI, throws, or sleeps: the next message and the next URI
// are served.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>

#include "deed.h"
#include "end_to_end/application.h"

namespace tarv::test {
namespace {

using Case = std::tuple<const char*, Deed>;

class TaskCallbackThat : public EndToEndTest, public testing::WithParamInterface<Case> {
 protected:
  static std::string GetPlace() { return std::get<const char*>(GetParam()); }
  static bool Throws() { return std::get<Deed>(GetParam()) == Deed::kThrows; }
};

std::string NameOfCase(const testing::TestParamInfo<Case>& info) {
  return NameOf(std::get<const char*>(info.param), std::get<Deed>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Each, TaskCallbackThat,
                         testing::Combine(testing::Values("OnConnected", "OnRequest", "OnNotify"),
                                          testing::Values(Deed::kThrows, Deed::kSleeps)),
                         NameOfCase);

TEST_P(TaskCallbackThat, LetsTheNextMessageBeServed) {
  const ScopedVariable plan("AWKWARD", GetPlace() + (Throws() ? " throws" : " sleeps"));
  const auto connection = StartConnected("awkward");
  EXPECT_EQ(connection->Ask("echo", 1), cw::EncodableValue(1));
  connection->client->SendNotify("note", {});
  connection->Send("echo", 2);
  connection->client->SendNotify("note", {});
  EXPECT_EQ(connection->Ask("echo", 3), cw::EncodableValue(3));
  EXPECT_TRUE(connection->WaitForResponses(1));
  EXPECT_EQ(connection->Ask("thrown"), cw::EncodableValue(Throws() ? 1 : 0));
}

class UriCallbackThat : public EndToEndTest, public testing::WithParamInterface<Deed> {
 protected:
  bool Throws() const { return GetParam() == Deed::kThrows; }

  // Runs events until the condition holds; counts the exceptions that come out.
  bool RunUntil(const std::function<bool()>& condition) {
    for (;;) {
      try {
        return WaitUntil(condition);
      } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), kThrown);
        ++thrown_;
      }
    }
  }

  const ScopedVariable handler_{"RUNTIME_MANAGER_URI_HANDLER", "/bin/true"};
  int answers_ = 0;
  int thrown_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Each, UriCallbackThat, testing::Values(Deed::kThrows, Deed::kSleeps),
                         [](const auto& test) { return NameOf("", test.param); });

TEST_P(UriCallbackThat, LetsTheNextUriBeOpened) {
  const auto intents = manager_wrapper_->GetIntentManager();
  for (int i = 0; i < 3; ++i) {
    intents->OpenUri("https://example.com", [this](bool success) {
      EXPECT_TRUE(success);
      if (++answers_ == 1) {
        Do(GetParam());
      }
    });
  }
  ASSERT_TRUE(RunUntil([this] { return answers_ == 3; }));
  EXPECT_EQ(thrown_, Throws() ? 1 : 0);
}

}  // namespace
}  // namespace tarv::test

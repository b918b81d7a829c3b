// What the tests of the wrapper share: a manager over a library that plays the service.
#ifndef WRAPPER_WRAPPER_FIXTURE_H
#define WRAPPER_WRAPPER_FIXTURE_H

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <quarn/dispatcher.h>
#include <tarv/manager_wrapper.h>
#include <vorpc/message.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fake_library.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {

inline constexpr char kFolder[] = FAKE_LIBRARY_FOLDER;

inline auto IsMissing(const std::string& entry) {
  return IsLogLine("error", "Method '" + entry + "' is not provided by the loaded API.");
}

// Keeps the parameters of what it is given, and runs it at once.
class RecordingDispatcher : public quarn::IDispatcher {
 public:
  void Invoke(const std::function<void()>& task, unsigned int param) override {
    params.push_back(param);
    task();
  }

  std::vector<unsigned int> params;
};

class Wrapper : public testing::Test {
 protected:
  Wrapper() : handle_(dlopen((std::string(kFolder) + "/libtarv.so").c_str(), RTLD_NOW)) {
    const auto get = reinterpret_cast<GetFakeLibraryFunction*>(dlsym(handle_, "GetFakeLibrary"));
    fake_ = get();
    *fake_ = FakeLibrary();
  }
  ~Wrapper() override { dlclose(handle_); }

  static std::unique_ptr<ManagerWrapper> CreateManager() {
    return ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), kFolder);
  }

  std::shared_ptr<vorpc::IClient> CreateClient() {
    manager_ = CreateManager();
    auto client = manager_->CreateIpcClient("worker");
    fake_->calls.clear();
    return client;
  }

  std::shared_ptr<vorpc::IServer> CreateServer() {
    manager_ = CreateManager();
    auto server = manager_->CreateRpcServer();
    fake_->calls.clear();
    return server;
  }

  // What `action` logs when it returns nothing.
  template <class Action>
  static std::string OutputOfFailure(Action&& action) {
    return StdoutOf([&action] { EXPECT_FALSE(action()); });
  }

  // `create` returns something, without a word, unless an entry is missing, which its line names.
  template <class Create>
  static void ExpectMissing(const std::string& entry, const Create& create) {
    bool created = false;
    const std::string output = StdoutOf([&] { created = create() != nullptr; });
    EXPECT_EQ(created, entry.empty());
    if (entry.empty()) {
      EXPECT_EQ(output, "");
    } else {
      EXPECT_THAT(output, IsMissing(entry));
    }
  }

  // The message of a call such as "Send(13, 'text')".
  static vorpc::Message SentMessage(const std::string& call) {
    const auto begin = call.find('\'') + 1;
    return vorpc::Message::FromBase64(call.substr(begin, call.rfind('\'') - begin));
  }

  void* handle_;
  FakeLibrary* fake_ = nullptr;
  std::unique_ptr<ManagerWrapper> manager_;
};

}  // namespace tarv::test

#endif  // WRAPPER_WRAPPER_FIXTURE_H

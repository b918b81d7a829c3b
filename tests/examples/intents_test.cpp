// The example "intents": three applications on one machine.

#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "kit/program.h"
#include "kit/surroundings.h"

namespace tarv::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;

class Intents : public testing::Test {
 protected:
  ~Intents() override { EXPECT_THAT(SocketsBelow(folder_.GetPath()), IsEmpty()); }

  RuntimeFolder folder_;
};

TEST_F(Intents, AreAnsweredByTheApplicationThatRegisteredThem) {
  Program owner({BIN_FOLDER "/intents_owner"});
  ASSERT_TRUE(owner.WaitForError("is registered"));
  for (int i = 0; i < 3; ++i) {
    Program invoker({BIN_FOLDER "/intents_invoker"});
    EXPECT_EQ(invoker.Wait(), 0);
    EXPECT_EQ(invoker.GetOutput(), "{\"grams\":7,\"of\":\"feathers\"}\n");
  }
  owner.Signal(SIGTERM);
  EXPECT_EQ(owner.Wait(), 128 + SIGTERM);
}

TEST_F(Intents, ThatNobodyOwnsFailWithAReason) {
  Program invoker({BIN_FOLDER "/intents_invoker"});
  EXPECT_EQ(invoker.Wait(), 1);
  EXPECT_THAT(invoker.GetError(), HasSubstr("example.weigh"));
}

TEST_F(Intents, OpenAUriWithTheProgramOfTheWorkstation) {
  const fs::path handler = folder_.GetPath() / "handler";
  const fs::path opened = folder_.GetPath() / "opened";
  std::ofstream(handler) << "#!/bin/sh\nprintf %s \"$1\" > '" << opened.string() << "'\n";
  fs::permissions(handler, fs::perms::owner_all);
  const ScopedVariable variable("RUNTIME_MANAGER_URI_HANDLER", handler.string());
  Program opener({BIN_FOLDER "/intents_opener", "https://example.org/?a=b&c='d'"});
  EXPECT_EQ(opener.Wait(), 0);
  std::string uri;
  std::getline(std::ifstream(opened), uri);
  EXPECT_EQ(uri, "https://example.org/?a=b&c='d'");
}

TEST_F(Intents, ReportAUriThatCannotBeOpened) {
  const ScopedVariable variable("RUNTIME_MANAGER_URI_HANDLER", "/no/such/program");
  Program opener({BIN_FOLDER "/intents_opener", "https://example.org/"});
  EXPECT_EQ(opener.Wait(), 1);
  EXPECT_THAT(opener.GetOutput(), HasSubstr("https://example.org/ could not be opened\n"));
}

}  // namespace
}  // namespace tarv::test

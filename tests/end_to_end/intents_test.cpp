// Intents from one application to another, over the real platform.

#include <RuntimeManager/IntentsInvoker.h>
#include <gmock/gmock.h>
#include <quarn/library.h>
#include <signal.h>
#include <sys/stat.h>

#include <QJsonObject>
#include <fstream>
#include <sstream>

#include "application.h"
#include "kit/program.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kLine[] = "Could not convert intent reply to a JSON object.";
constexpr int kTerminated = 128 + SIGTERM;

struct IntentReply {
  QJsonObject object;
  RuntimeManager::Error error;
};

class EndToEndIntents : public EndToEndTest {
 protected:
  EndToEndIntents() : intents_(manager_wrapper_->GetIntentManager()) {}

  // Another application that owns the intent.
  static std::unique_ptr<Program> Owner(const std::string& name, const std::string& how) {
    auto owner =
        std::make_unique<Program>(std::vector<std::string>{INTENT_OWNER_PROGRAM, name, how});
    EXPECT_TRUE(owner->WaitForError("ready")) << owner->GetError();
    return owner;
  }

  // Ends an owner in good order, and returns what it said.
  static std::string End(Program& owner) {
    owner.Signal(SIGTERM);
    EXPECT_EQ(owner.Wait(), kTerminated) << owner.GetError();
    EXPECT_THAT(owner.GetError(), Not(HasSubstr("Sanitizer")));
    return owner.GetOutput();
  }

  void Open(int number) {
    intents_->OpenUri("https://example.com/" + std::to_string(number),
                      [this, number](bool success) {
                        outcomes_.push_back(std::to_string(number) + (success ? " yes" : " no"));
                      });
  }
  bool WaitForOutcomes(std::size_t count) const {
    return WaitUntil([this, count] { return outcomes_.size() >= count; });
  }

  static IntentReply Invoke(const QString& name) {
    std::vector<IntentReply> replies;
    RuntimeManager::IntentsInvoker invoker;
    QObject::connect(&invoker, &RuntimeManager::IntentsInvoker::replyReceived, &invoker,
                     [&replies](const QJsonObject& object, const RuntimeManager::Error& error) {
                       replies.push_back({object, error});
                     });
    invoker.invoke(name, {}, {{"ignored", true}});
    EXPECT_TRUE(WaitUntil([&replies] { return !replies.empty(); }));
    return replies.at(0);
  }

  // Makes a program that opens URIs of it.
  void SetHandler(const std::string& script) {
    const std::filesystem::path path = Sign("handler");
    std::ofstream(path) << "#!/bin/sh\n" << script << "\n";
    chmod(path.c_str(), S_IRWXU);
    handler_.emplace("RUNTIME_MANAGER_URI_HANDLER", path.string());
  }
  std::string OpenedUris() const {
    std::ostringstream text;
    text << std::ifstream(Sign("opened")).rdbuf();
    return text.str();
  }
  std::string Noting() const { return "echo \"$1\" >> " + Sign("opened").string(); }

  std::unique_ptr<IntentManager> intents_;
  std::optional<ScopedVariable> handler_;
  std::vector<std::string> outcomes_;
};

TEST_F(EndToEndIntents, AreServedOneAfterTheOtherInOrder) {
  const auto owner = Owner("OpenURI", "later");
  for (int i = 1; i <= 3; ++i) {
    Open(i);
  }
  ASSERT_TRUE(WaitForOutcomes(3));
  EXPECT_THAT(outcomes_, ElementsAre("1 yes", "2 yes", "3 yes"));
  EXPECT_EQ(End(*owner), "asked\nanswers\nasked\nanswers\nasked\nanswers\n");
}

TEST_F(EndToEndIntents, GiveFalseWhenTheOwnerDiesBeforeItAnswers) {
  SetHandler(Noting());
  const auto owner = Owner("OpenURI", "die");
  Open(1);
  Open(2);
  ASSERT_TRUE(WaitForOutcomes(2));
  EXPECT_THAT(outcomes_, ElementsAre("1 no", "2 yes"));
  EXPECT_EQ(OpenedUris(), "https://example.com/2\n") << "without an owner, the program opens it";
  // The next owner takes the name over, and the file that the dead one left goes with it.
  End(*Owner("OpenURI", "map"));
}

TEST_F(EndToEndIntents, GiveFalseWhenTheOwnerOnlyReleasesTheReply) {
  const auto owner = Owner("OpenURI", "release");
  Open(1);
  Open(2);
  ASSERT_TRUE(WaitForOutcomes(2));
  EXPECT_THAT(outcomes_, ElementsAre("1 no", "2 no"));
  EXPECT_EQ(End(*owner), "asked\nasked\n");
}

TEST_F(EndToEndIntents, TellTheInvokerOfAReplyThatIsOnlyReleased) {
  const auto owner = Owner("Greet", "release");
  const IntentReply reply = Invoke("Greet");
  EXPECT_EQ(reply.object, QJsonObject());
  EXPECT_THAT(reply.error.message().toStdString(), HasSubstr("without an answer"));
  EXPECT_EQ(End(*owner), "asked\n");
}

TEST_F(EndToEndIntents, BringTheOwnersMapAsAnObject) {
  const auto owner = Owner("Greet", "map");
  const IntentReply reply = Invoke("Greet");
  EXPECT_FALSE(reply.error.isError());
  EXPECT_EQ(reply.object, QJsonObject({{"n", 7}, {"deep", QJsonObject()}}));
  EXPECT_THAT(End(*owner), Not(HasSubstr(kLine)));
}

TEST_F(EndToEndIntents, BringAnEmptyObjectForAReplyThatIsNone) {
  for (const char* const how : {"list", "garbage"}) {
    const auto owner = Owner("Greet", how);
    const IntentReply reply = Invoke("Greet");
    EXPECT_FALSE(reply.error.isError()) << how;
    EXPECT_EQ(reply.object, QJsonObject()) << how;
    EXPECT_THAT(End(*owner), HasSubstr(kLine)) << how;
  }
}

TEST_F(EndToEndIntents, OpenUrisByTheProgramOfTheEnvironmentInOrder) {
  SetHandler(Noting());
  for (int i = 1; i <= 3; ++i) {
    Open(i);
  }
  ASSERT_TRUE(WaitForOutcomes(3));
  EXPECT_THAT(outcomes_, ElementsAre("1 yes", "2 yes", "3 yes"));
  EXPECT_EQ(OpenedUris(), "https://example.com/1\nhttps://example.com/2\nhttps://example.com/3\n");
}

TEST_F(EndToEndIntents, GiveFalseForAProgramThatFailsAndGoOnWithTheNext) {
  SetHandler("test \"$1\" = https://example.com/2");
  for (int i = 1; i <= 3; ++i) {
    Open(i);
  }
  ASSERT_TRUE(WaitForOutcomes(3));
  EXPECT_THAT(outcomes_, ElementsAre("1 no", "2 yes", "3 no"));
}

TEST_F(EndToEndIntents, PreferTheOwnerToTheProgram) {
  SetHandler(Noting());
  const auto owner = Owner("OpenURI", "map");
  Open(1);
  ASSERT_TRUE(WaitForOutcomes(1));
  EXPECT_THAT(outcomes_, ElementsAre("1 yes"));
  EXPECT_EQ(OpenedUris(), "");
  EXPECT_EQ(End(*owner), "asked\n");
}

TEST_F(EndToEndIntents, GiveFalseForWhatIsNoUri) {
  SetHandler(Noting());
  intents_->OpenUri("no uri",
                    [this](bool success) { outcomes_.push_back(success ? "yes" : "no"); });
  ASSERT_TRUE(WaitForOutcomes(1));
  EXPECT_THAT(outcomes_, ElementsAre("no"));
  EXPECT_EQ(OpenedUris(), "");
}

// The slot that an intent manager last passed to the service.
TARVOpenUriSlot& PassedSlot() {
  static TARVOpenUriSlot slot{};
  return slot;
}

decltype(TARVIntentManagerProcTable::OpenUri)& RealOpenUri() {
  static decltype(TARVIntentManagerProcTable::OpenUri) entry = nullptr;
  return entry;
}

// The service's table, with an entry that notes the slot before it passes it on: what the service
// does not take would otherwise be nobody's.
QuarnResult LoadNotingTable(TARVIntentManagerProcTable* table, std::size_t size) {
  TARVProcTable root{};
  TARVProcTableLoad(&root, sizeof(root));
  const QuarnResult result = root.IntentManagerProcTableLoad(table, size);
  RealOpenUri() = table->OpenUri;
  table->OpenUri = [](_TARVIntentManagerRef* intents, const char* uri, TARVOpenUriSlot* slot) {
    PassedSlot() = *slot;
    return RealOpenUri()(intents, uri, slot);
  };
  return result;
}

TEST_F(EndToEndIntents, OfAManagerThatIsGoneNeverCallTheCallback) {
  const auto library =
      quarn::Library::Create(std::filesystem::path(LibraryFolder()) / "libtarv.so");
  intents_ = IntentManager::Create(IntentManager::Api::Create(library, &LoadNotingTable),
                                   tables_.root.GetIntentManager(manager_));
  manager_wrapper_.reset();
  const auto alive = std::make_shared<int>(0);
  EXPECT_THAT(StdoutOf([&] {
                intents_->OpenUri("https://example.com/1", [alive](bool) { ADD_FAILURE(); });
              }),
              IsLogLine("error", "Intent Manager is not initialized."));
  RunEvents(std::chrono::milliseconds(20));
  EXPECT_EQ(alive.use_count(), 2) << "the service has not taken the slot, and so not released it";
  PassedSlot().release(PassedSlot().user_data);
}

TEST_F(EndToEndIntents, MayBeAskedForFromInsideACallback) {
  SetHandler(Noting());
  intents_->OpenUri("https://example.com/first", [this](bool /*success*/) { Open(3); });
  Open(2);
  ASSERT_TRUE(WaitForOutcomes(2));
  EXPECT_THAT(outcomes_, ElementsAre("2 yes", "3 yes"));
}

}  // namespace
}  // namespace tarv::test

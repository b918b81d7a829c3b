// Intents: owners, invokers, and the URIs that need no owner.
#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/RuntimeDispatcher.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcessEnvironment>
#include <memory>

#include "kit.h"

namespace kit {
namespace {

using RuntimeManager::IntentsInvoker;
using RuntimeManager::RuntimeDispatcher;
using testing::HasSubstr;

struct Replies {
  explicit Replies(IntentsInvoker* invoker) {
    QObject::connect(invoker, &IntentsInvoker::replyReceived,
                     [this](const QJsonObject& reply, const Error& error) {
                       objects.push_back(reply);
                       errors.push_back(error);
                     });
  }
  bool WaitFor(std::size_t count) {
    return RunUntil([this, count] { return errors.size() >= count; });
  }
  std::vector<QJsonObject> objects;
  std::vector<Error> errors;
};

// Registrations last as long as the process, and so do the descriptors that they listen on.
class Intents : public PlatformTest {
 protected:
  QString Socket(const QString& name) const { return RuntimeFolder() + "/intents/" + name; }
  // Another process that owns the intent.
  std::unique_ptr<Task> Owner(const QString& name, const QString& how = {}) {
    AddHelperTask("owner");
    auto task = std::make_unique<Task>("owner");
    task->withArguments({"own", name, how});
    ExpectStarts(*task);
    EXPECT_TRUE(RunUntil([this, name] { return CanConnect(name); }));
    return task;
  }
  bool CanConnect(const QString& name) const {
    const int socket = ConnectTo(Socket(name));
    ::close(socket);
    return socket >= 0;
  }
  // What the owner writes to its standard error comes through this process.
  static bool WaitForWords(const StderrPipe& pipe, const QByteArray& words) {
    QByteArray all;
    return RunUntil([&all, &pipe, &words] { return (all += pipe.Read(4096)).contains(words); });
  }
  Error Invoke(const QString& name, const QJsonObject& second = {}) {
    IntentsInvoker invoker;
    Replies replies(&invoker);
    invoker.invoke(name, {}, second);
    EXPECT_TRUE(replies.errors.empty());
    EXPECT_TRUE(replies.WaitFor(1));
    EXPECT_TRUE(replies.objects.at(0).isEmpty() || !replies.errors.at(0).isError());
    return replies.errors.at(0);
  }
  Error Open(const QString& uri) { return Invoke("OpenURI", {{"uri", uri}}); }
  // A program that opens URIs by noting its arguments.
  void SetHandler(const QByteArray& script) {
    AddShellTask("handler", script);
    handler_ = std::make_unique<ScopedVariable>("RUNTIME_MANAGER_URI_HANDLER",
                                                PathOf("tasks/handler").toUtf8());
  }
  void TearDown() override {
    handler_.reset();
    PlatformTest::TearDown();
  }

 private:
  std::unique_ptr<ScopedVariable> handler_;
};

TEST_F(Intents, GiveTheirOwnerTheSecondObjectAndCarryItsReplyBack) {
  const auto owner = Owner("Greet");
  IntentsInvoker invoker;
  Replies replies(&invoker);
  invoker.invoke("Greet", {{"a", 1}}, {{"b", "two"}});
  ASSERT_TRUE(replies.WaitFor(1));
  EXPECT_FALSE(replies.errors[0].isError()) << replies.errors[0].message().toStdString();
  EXPECT_EQ(replies.objects[0]["parameters"], QJsonValue(QJsonObject{{"b", "two"}}));
}

TEST_F(Intents, MayBeUnderWayAtTheSameTime) {
  const auto owner = Owner("Greet");
  IntentsInvoker invoker;
  Replies replies(&invoker);
  for (int i = 0; i < 50; ++i) {
    invoker.invoke("Greet", {{"n", i}}, {});
  }
  ASSERT_TRUE(replies.WaitFor(50));
  for (const Error& error : replies.errors) {
    EXPECT_FALSE(error.isError());
  }
  RunFor(50);
  EXPECT_EQ(replies.errors.size(), 50U);
}

TEST_F(Intents, FailWithoutAnOwner) {
  const Error error = Invoke("Nobody");
  EXPECT_EQ(error.code(), Error::kNoSuchIntent);
  EXPECT_THAT(error.message().toStdString(), HasSubstr("'Nobody'"));
}

TEST_F(Intents, FailWithABadName) {
  for (const QString& name :
       {QString(), QString(".lock"), QString("a/b"), QString(81, 'a'), QString("a\nb")}) {
    const Error error = Invoke(name);
    EXPECT_EQ(error.code(), Error::kInvalidArgument) << name.toStdString();
    EXPECT_FALSE(error.message().contains('\n'));
  }
  EXPECT_EQ(Invoke(QString(80, 'a')).code(), Error::kNoSuchIntent);
}

TEST_F(Intents, FailWhenTheOwnerDiesBeforeItAnswers) {
  const auto owner = Owner("Fatal", "die");
  const Error error = Invoke("Fatal");
  EXPECT_EQ(error.code(), Error::kIntentFailed);
  EXPECT_THAT(error.message().toStdString(),
              testing::ContainsRegex("'Fatal' failed: its owner, process [0-9]+ "));
}

TEST_F(Intents, FailWhenTheOwnerAnswersNonsense) {
  ASSERT_EQ(Invoke("Odd").code(), Error::kNoSuchIntent);
  const int listening = ListenOn(Socket("Odd"));
  IntentsInvoker invoker;
  Replies replies(&invoker);
  invoker.invoke("Odd", {}, {});
  const int peer = ::accept(listening, nullptr, nullptr);
  EXPECT_EQ(ReadLineFrom(peer), R"({"first":{},"second":{}})");
  ASSERT_EQ(::send(peer, "{}\n", 3, 0), 3);
  EXPECT_TRUE(replies.WaitFor(1));
  EXPECT_EQ(replies.errors.at(0).code(), Error::kIntentFailed);
  ::close(peer);
  ::close(listening);
}

TEST_F(Intents, EndWithTheirInvoker) {
  const auto owner = Owner("Greet");
  auto invoker = std::make_unique<IntentsInvoker>();
  Replies replies(invoker.get());
  invoker->invoke("Greet", {}, {});
  invoker->invoke(".bad", {}, {});
  invoker.reset();
  RunFor(100);
  EXPECT_TRUE(replies.errors.empty());
  auto* doomed = new IntentsInvoker;
  bool deleted = false;
  QObject::connect(doomed, &IntentsInvoker::replyReceived, [doomed, &deleted] {
    delete doomed;
    deleted = true;
  });
  doomed->invoke("Greet", {}, {});
  doomed->invoke("Greet", {}, {});
  EXPECT_TRUE(RunUntil([&deleted] { return deleted; }));
}

TEST_F(Intents, AnswerWithTheFirstReplyEvenLaterAndFromAnotherThread) {
  const StderrPipe words;
  const auto owner = Owner("Later", "thread");
  IntentsInvoker invoker;
  Replies replies(&invoker);
  invoker.invoke("Later", {}, {});
  EXPECT_TRUE(WaitForWords(words, "a second reply to the intent 'Later' is dropped"));
  ASSERT_TRUE(replies.WaitFor(1));
  RunFor(50);
  EXPECT_EQ(replies.objects.size(), 1U);
  EXPECT_EQ(replies.objects[0]["n"], 1);
}

TEST_F(Intents, FailWhenTheOwnerKeepsTheReplyAndDropALateOne) {
  const auto owner = Owner("Kept", "keep");
  IntentsInvoker invoker;
  Replies replies(&invoker);
  {
    const ScopedVariable timeout("RUNTIME_MANAGER_INTENT_TIMEOUT", "1");
    invoker.invoke("Kept", {}, {});
  }
  ASSERT_TRUE(replies.WaitFor(1));
  EXPECT_EQ(replies.errors[0].code(), Error::kIntentFailed);
  EXPECT_THAT(replies.errors[0].message().toStdString(),
              testing::ContainsRegex(
                  "'Kept' failed: its owner, process [0-9]+ \\('(owner|qemu-[^']*)'\\), has not "
                  "answered for 1 s \\(RUNTIME_MANAGER_INTENT_TIMEOUT sets"));
  RunFor(1000);
  EXPECT_EQ(replies.errors.size(), 1U) << "a late reply";
  invoker.invoke("Kept", {}, {{"n", 2}});
  ASSERT_TRUE(replies.WaitFor(2));
  EXPECT_EQ(replies.objects[1]["parameters"], QJsonValue(QJsonObject{{"n", 2}}));
}

TEST_F(Intents, SayOnceThatTheirLimitIsNoNumber) {
  const WarningCatcher warnings;
  for (const char* wrong : {"soon", "0", "86401", "-1", "1.5"}) {
    const ScopedVariable timeout("RUNTIME_MANAGER_INTENT_TIMEOUT", wrong);
    Invoke("Nobody");
    Invoke("Nobody");
    EXPECT_EQ(warnings.Count(QString("RUNTIME_MANAGER_INTENT_TIMEOUT is '%1': it must be a number "
                                     "of seconds from 1 to 86400; the default of 30 holds")
                                 .arg(wrong)),
              1);
  }
}

TEST_F(Intents, QuoteTheOwnersWordsEscapedAndCut) {
  ASSERT_EQ(Invoke("Rude").code(), Error::kNoSuchIntent);
  const int listening = ListenOn(Socket("Rude"));
  IntentsInvoker invoker;
  Replies replies(&invoker);
  for (const QByteArray& words : {QByteArray("\\u001b[2J\\nforged"), QByteArray(100'000, 'x')}) {
    replies.errors.clear();
    invoker.invoke("Rude", {}, {});
    const int peer = ::accept(listening, nullptr, nullptr);
    const QByteArray line = "{\"error\":\"" + words + "\"}\n";
    ASSERT_EQ(::send(peer, line.constData(), std::size_t(line.size()), 0), line.size());
    ASSERT_TRUE(replies.WaitFor(1));
    EXPECT_THAT(replies.errors[0].message().toStdString(),
                testing::AnyOf(testing::EndsWith("failed: \\x1b[2J\\nforged"),
                               testing::EndsWith("xxx...")));
    EXPECT_LT(replies.errors[0].message().size(), 1100);
    ::close(peer);
  }
  ::close(listening);
}

TEST_F(Intents, TellTheInvokerThatTheOwnerLetGo) {
  // An empty handler lets go, too.
  for (const char* how : {"drop", "empty"}) {
    const auto owner = Owner(how, how);
    const Error error = Invoke(how);
    EXPECT_EQ(error.code(), Error::kIntentFailed);
    EXPECT_THAT(error.message().toStdString(), HasSubstr("let it go without an answer"));
    QFile::remove(PathOf("tasks/owner"));
  }
}

TEST_F(Intents, StayWithTheFirstLiveOwner) {
  const auto owner = Owner("Mine");
  {
    const WarningCatcher warnings;
    RuntimeDispatcher::instance()->registerIntent("Mine", {});
    EXPECT_EQ(warnings.Count("'Mine' is not registered: a live process owns it"), 1);
    RuntimeDispatcher::instance()->registerIntent("not/a name", {});
    EXPECT_EQ(warnings.Count("cannot be the name of an intent"), 1);
  }
  IntentsInvoker invoker;
  Replies replies(&invoker);
  invoker.invoke("Mine", {}, {});
  ASSERT_TRUE(replies.WaitFor(1));
  EXPECT_NE(replies.objects[0]["pid"], QJsonValue(::getpid()));
}

TEST_F(Intents, StayWithTheFirstOwnerOfTheSameProcessToo) {
  const StderrPipe words;
  const auto owner = Owner("Own", "twice");
  EXPECT_TRUE(WaitForWords(words, "'Own' is not registered: a live process owns it"));
  EXPECT_FALSE(Invoke("Own").isError());
}

TEST_F(Intents, AreRefusedToAForkedCopyOfTheProcess) {
  ASSERT_EQ(Invoke("Nobody").code(), Error::kNoSuchIntent);
  const auto is_refused = [this] {
    const WarningCatcher warnings;
    RuntimeDispatcher::instance()->registerIntent("Copied", {});
    const Error error = Invoke("Nobody");
    return warnings.Count("'Copied' is not registered: process ") == 1 &&
           warnings.Count("is a forked copy of process ") == 1 &&
           error.code() == Error::kWrongState && error.message().contains("is a forked copy");
  };
  EXPECT_EXIT(::_exit(is_refused() ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST_F(Intents, ArePassedOnWhenTheirOwnerHasDied) {
  const auto first = Owner("Heir", "die");
  Outcomes death;
  QObject::connect(first.get(), &Task::finished, death.Recorder());
  EXPECT_EQ(Invoke("Heir").code(), Error::kIntentFailed);
  EXPECT_TRUE(death.Wait().isError());
  EXPECT_TRUE(QFile::exists(Socket("Heir"))) << "a crash leaves the file behind";
  EXPECT_EQ(Invoke("Heir").code(), Error::kNoSuchIntent);
  QFile::remove(PathOf("tasks/owner"));
  const auto second = Owner("Heir");
  IntentsInvoker invoker;
  Replies replies(&invoker);
  invoker.invoke("Heir", {}, {});
  ASSERT_TRUE(replies.WaitFor(1));
  EXPECT_FALSE(replies.errors[0].isError());
}

TEST_F(Intents, GoWithTheProcessThatOwnsThem) {
  const auto owner = Owner("Gone", "quit");
  Outcomes finished;
  QObject::connect(owner.get(), &Task::finished, finished.Recorder());
  IntentsInvoker invoker;
  invoker.invoke("Gone", {}, {});
  EXPECT_THAT(finished.Wait().message().toStdString(), HasSubstr("exited with status 0"));
  EXPECT_FALSE(QFile::exists(Socket("Gone")));
  EXPECT_TRUE(QFile::exists(RuntimeFolder() + "/intents"));
}

TEST_F(Intents, AreNotServedInAFolderOfOthers) {
  ASSERT_TRUE(QDir().mkpath(RuntimeFolder()));
  QFile::setPermissions(RuntimeFolder(), QFile::Permissions(0x7777));
  EXPECT_EQ(Invoke("Greet").code(), Error::kRuntimeFolder);
  const WarningCatcher warnings;
  RuntimeDispatcher::instance()->registerIntent("Greet", {});
  EXPECT_EQ(warnings.Count("chmod 700"), 1);
}

TEST_F(Intents, AreNotRegisteredWhileAnotherProcessHoldsTheLockOfTheirNames) {
  ASSERT_EQ(Invoke("Greet").code(), Error::kNoSuchIntent);
  const int lock = ::open((RuntimeFolder() + "/intents/.lock").toUtf8().constData(),
                          O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  const WarningCatcher warnings;
  RuntimeDispatcher::instance()->registerIntent("Greet", {});
  EXPECT_EQ(warnings.Count("'Greet' is not registered: cannot lock"), 1);
  EXPECT_EQ(warnings.Count("another process has held it for 1000 ms"), 1);
  ::close(lock);
}

// What refuses no connection is not dead.
TEST_F(Intents, AreNotTakenOverWhereNobodyCanTellWhoseTheyAre) {
  ASSERT_EQ(Invoke("Looped").code(), Error::kNoSuchIntent);
  ASSERT_TRUE(QFile::link("Looped", Socket("Looped")));
  const WarningCatcher warnings;
  RuntimeDispatcher::instance()->registerIntent("Looped", {});
  EXPECT_EQ(warnings.Count("'Looped' is not registered: cannot tell who owns"), 1);
  EXPECT_TRUE(QFile::remove(Socket("Looped")));
}

TEST_F(Intents, OpenAUriWithTheChosenProgramAndNoShell) {
  SetHandler("printf '%s|' $# \"$@\" > $WORLD/out");
  const QString uri = "https://example.com/a%20b?q=$(touch+out2)&x='y';z*#frag";
  const Error error = Open(uri);
  EXPECT_FALSE(error.isError()) << error.message().toStdString();
  EXPECT_TRUE(WaitForFile(PathOf("out"), "#frag|"));
  EXPECT_EQ(ReadFile(PathOf("out")), ("1|" + uri + "|").toUtf8());
}

TEST_F(Intents, SayHowTheProgramThatOpensUrisFailed) {
  SetHandler("exit 3");
  const Error error = Open("mailto:somebody@example.com");
  EXPECT_EQ(error.code(), Error::kUriHandlerFailed);
  EXPECT_THAT(error.message().toStdString(), HasSubstr("exited with status 3"));
}

TEST_F(Intents, SayThatThereIsNoProgramToOpenUris) {
  const ScopedVariable chosen("RUNTIME_MANAGER_URI_HANDLER", "no-such-program");
  EXPECT_THAT(Open("https://example.com").message().toStdString(), HasSubstr("'no-such-program'"));
  const ScopedVariable absolute("RUNTIME_MANAGER_URI_HANDLER", "/no/such/program");
  const Error error = Open("https://example.com");
  EXPECT_EQ(error.code(), Error::kUriHandlerFailed);
  EXPECT_THAT(error.message().toStdString(),
              HasSubstr("'/no/such/program' cannot be run: No such file or directory"));
}

TEST_F(Intents, GiveTheProgramThatOpensUrisALimitOfItsOwn) {
  SetHandler("sleep 2");
  const ScopedVariable timeout("RUNTIME_MANAGER_INTENT_TIMEOUT", "1");
  const Error error = Open("https://example.com");
  EXPECT_FALSE(error.isError()) << error.message().toStdString();
}

TEST_F(Intents, UseXdgOpenWhenNoProgramIsChosen) {
  AddShellTask("xdg-open", "echo \"$1\" > $WORLD/out");
  const ScopedVariable unset("RUNTIME_MANAGER_URI_HANDLER", QByteArray());
  const ScopedVariable path("PATH", PathOf("tasks").toUtf8() + ":/usr/bin:/bin");
  EXPECT_FALSE(Open("https://example.com/").isError());
  EXPECT_TRUE(WaitForFile(PathOf("out"), "https://example.com/\n"));
}

TEST_F(Intents, PassOnValidAbsoluteUrisOnly) {
  SetHandler("echo \"$1\" >> $WORLD/out");
  for (const QString& uri :
       {QString(), QString("relative/path"), QString("//host/path"), QString("--help"),
        QString("/etc/passwd"), QString("http://exa mple.com/"), QString("http://[::1/"),
        QString("1http://example.com"), QString("http://example.com/%zz"), QString("https:"),
        QString::fromUtf8("https://example.com/ü"), QString("https://example.com/\n")}) {
    EXPECT_EQ(Open(uri).code(), Error::kInvalidArgument) << uri.toStdString();
  }
  EXPECT_EQ(Invoke("OpenURI", {{"uri", 5}}).code(), Error::kInvalidArgument);
  EXPECT_EQ(Invoke("OpenURI", {}).code(), Error::kInvalidArgument);
  EXPECT_FALSE(QFile::exists(PathOf("out")));
}

TEST_F(Intents, PassOnValidAbsoluteUrisOnlyToAnOwnerToo) {
  const auto owner = Owner("OpenURI");
  for (const QString& uri : {QString(), QString("relative"), QString("https://example.com/\n")}) {
    EXPECT_EQ(Open(uri).code(), Error::kInvalidArgument) << uri.toStdString();
  }
  EXPECT_EQ(Invoke("OpenURI", {{"uri", 5}}).code(), Error::kInvalidArgument);
  // Nor by a connection that asks nobody.
  const int socket = ConnectTo(Socket("OpenURI"));
  const QByteArray line = "{\"first\":{},\"second\":{\"uri\":\"relative\"}}\n";
  ASSERT_EQ(::send(socket, line.constData(), std::size_t(line.size()), 0), line.size());
  EXPECT_THAT(ReadLineFrom(socket).toStdString(),
              HasSubstr("{\"error\":\"'relative' cannot be opened"));
  ::close(socket);
}

TEST_F(Intents, LetTheProgramThatShowsTheUriLiveOn) {
  SetHandler("sleep 1; echo shown > $WORLD/out");
  auto invoker = std::make_unique<IntentsInvoker>();
  invoker->invoke("OpenURI", {}, {{"uri", "https://example.com"}});
  RunFor(300);
  invoker.reset();
  EXPECT_TRUE(WaitForFile(PathOf("out"), "shown"));
}

TEST_F(Intents, LeaveUrisToTheOwnerOfOpenUri) {
  SetHandler("echo \"$1\" >> $WORLD/out");
  const auto owner = Owner("OpenURI");
  IntentsInvoker invoker;
  Replies replies(&invoker);
  invoker.invoke("OpenURI", {}, {{"uri", "https://example.com"}});
  ASSERT_TRUE(replies.WaitFor(1));
  EXPECT_EQ(replies.objects[0]["parameters"].toObject()["uri"], "https://example.com");
  EXPECT_FALSE(QFile::exists(PathOf("out")));
}

}  // namespace
}  // namespace kit

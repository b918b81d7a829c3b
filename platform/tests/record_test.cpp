// The file of the record: which may be used, and what is said about one that may not.
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <algorithm>
#include <csignal>
#include <ctime>
#include <vector>

#include "kit.h"

namespace kit {
namespace {

// A message and its answer between two processes, which share the record.
class RecordFile : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    AddHelperTask("echo");
  }
  // What the starter and its task write to their standard error.
  QByteArray WordsOfATalk(const QString& record) {
    const ScopedVariable trace("RUNTIME_MANAGER_TRACE", record.toUtf8());
    StderrPipe pipe;
    Process starter(HELPER, {"talk", "echo"});
    EXPECT_EQ(starter.Wait(), 0);
    return pipe.ReadToEnd();
  }
  void Write(const QString& name, const QByteArray& text) {
    QFile file(PathOf(name));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(text);
  }
  mode_t Mode(const QString& name) {
    struct stat facts {};
    EXPECT_EQ(::stat(PathOf(name).toUtf8().constData(), &facts), 0);
    return facts.st_mode & 07777U;
  }
};

TEST_F(RecordFile, IsClosedToOtherUsersWhateverTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
    QFile::remove(PathOf("trace"));
    const mode_t before = ::umask(mask);
    EXPECT_EQ(WordsOfATalk(PathOf("trace")), "");
    ::umask(before);
    EXPECT_EQ(Mode("trace"), 0600U);
    EXPECT_EQ(ReadFile(PathOf("trace")).count("\"direction\":"), 4);
  }
}

TEST_F(RecordFile, ThatIsThereAlreadyIsContinuedAndClosedToOtherUsers) {
  Write("trace", "{}\n");
  ASSERT_EQ(::chmod(PathOf("trace").toUtf8().constData(), 0666), 0);
  EXPECT_EQ(WordsOfATalk(PathOf("trace")), "");
  EXPECT_EQ(Mode("trace"), 0600U);
  EXPECT_TRUE(ReadFile(PathOf("trace")).startsWith("{}\n{"));
}

TEST_F(RecordFile, IsNeverReachedByASymbolicLink) {
  Write("target", "precious");
  ASSERT_TRUE(QFile::link(PathOf("target"), PathOf("trace")));
  EXPECT_EQ(WordsOfATalk(PathOf("trace")).count("it is a symbolic link"), 2);
  EXPECT_EQ(ReadFile(PathOf("target")), "precious");
  ASSERT_TRUE(QFile::link(PathOf("nowhere"), PathOf("dangling")));
  EXPECT_EQ(WordsOfATalk(PathOf("dangling")).count("it is a symbolic link"), 2);
  EXPECT_FALSE(QFile::exists(PathOf("nowhere")));
}

TEST_F(RecordFile, OfSomebodyElseIsLeftAlone) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "only root can give a file away";
  }
  Write("trace", "precious");
  ASSERT_EQ(::chown(PathOf("trace").toUtf8().constData(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(PathOf("trace").toUtf8().constData(), 0666), 0);
  EXPECT_EQ(WordsOfATalk(PathOf("trace")).count("it belongs to the user with id 65534"), 2);
  EXPECT_EQ(ReadFile(PathOf("trace")), "precious");
  EXPECT_EQ(Mode("trace"), 0666U);
}

TEST_F(RecordFile, ThatCannotBeOpenedIsSaidOnceByEachProcess) {
  const QByteArray words = WordsOfATalk("/no/such/folder/trace");
  EXPECT_EQ(words.count("no record is kept: RUNTIME_MANAGER_TRACE '/no/such/folder/trace' cannot "
                        "be used: No such file or directory"),
            2)
      << words.toStdString();
}

// The task gets a message, sends what no socket holds, and is gone; nobody reads.
TEST_F(RecordFile, SaysNothingOfMessagesThatAreLostInTheQueue) {
  // The task's record alone: this process would keep the file open for good.
  AddShellTask("flood", "RUNTIME_MANAGER_TRACE=$WORLD/trace exec " HELPER " flood at-once");
  Task task("flood");
  task.withIpcSocket(true);
  ExpectStarts(task);
  TaskMessaging messaging(task.socketPath());
  messaging.sendMessage(Data("go"));
  for (int i = 0; i < 20000 && !QFile::exists(PathOf("flooded")); ++i) {
    ::usleep(1000);
  }
  const QByteArray record = ReadFile(PathOf("trace"));
  EXPECT_EQ(record.count(R"("direction":"receive","envelope":{"data":"go"}})"), 1);
  EXPECT_EQ(record.count(R"({"data":"aaa)"), 0);
}

// A process that leaves while its peer does not read, and how its record and its messages compare.
class RecordOfALeaver : public RecordFile {
 protected:
  static qint64 Now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
  }
  // What arrives of what the process sends, when it is read a while after the socket was full, or
  // once the connection was ended.
  QByteArray Received(const QString& how) {
    const ScopedVariable trace("RUNTIME_MANAGER_TRACE", PathOf("trace").toUtf8());
    const ScopedVariable bound("RUNTIME_MANAGER_MAX_MESSAGE", "200000");
    const int listening = ListenOn(PathOf("server"));
    ::fcntl(listening, F_SETFD, 0);
    Process process(HELPER, {"leave-while-writing", QString::number(listening), how});
    ::close(listening);
    const int peer = ConnectTo(PathOf("server"));
    EXPECT_EQ(::send(peer, "{}\n", 3, 0), 3);
    if (how == "end") {
      EXPECT_TRUE(WaitForFile(PathOf("done"), "\n"));
    } else {
      EXPECT_TRUE(RunUntil([peer] {
        int held = 0;
        return ::ioctl(peer, FIONREAD, &held) == 0 && held > 100'013;
      }));
      RunFor(200);
    }
    looked_at_ = Now();
    EXPECT_EQ(::ioctl(peer, FIONREAD, &held_), 0);
    reading_since_ = Now();
    const QByteArray all = ReadToEnd(peer);
    ::close(peer);
    EXPECT_EQ(process.Wait(), 0);
    return all;
  }
  std::vector<qint64> TimesSent() const {
    std::vector<qint64> times;
    for (const QByteArray& line : ReadFile(PathOf("trace")).split('\n')) {
      const QJsonObject record = QJsonDocument::fromJson(line).object();
      if (record["direction"] == "send") {
        times.push_back(static_cast<qint64>(record["time"].toDouble()));
      }
    }
    return times;
  }

  int held_ = 0;  // bytes that the socket has taken before anybody reads
  qint64 looked_at_ = 0;
  qint64 reading_since_ = 0;
};

TEST_F(RecordOfALeaver, HasTheTimesWhenTheSocketTookTheMessages) {
  EXPECT_EQ(Received("wait").count('\n'), 20);
  const std::vector<qint64> times = TimesSent();
  ASSERT_EQ(times.size(), 20U);
  const auto count_before = [&times](qint64 then) {
    return std::count_if(times.begin(), times.end(), [then](qint64 time) { return time < then; });
  };
  const int whole = held_ / 100'013;
  EXPECT_LT(whole, 10) << "a socket that holds everything shows nothing";
  // The last one before the look may not have arrived by then, and another one behind it.
  EXPECT_LE(count_before(looked_at_), whole + 1);
  EXPECT_GE(count_before(reading_since_), whole);
}

TEST_F(RecordOfALeaver, HasWhatWasSentWhileTheConnectionWasEnded) {
  const auto whole = static_cast<std::size_t>(Received("end").count('\n'));
  EXPECT_GT(whole, 0U);
  EXPECT_LT(whole, 20U);
  EXPECT_EQ(TimesSent().size(), whole);
}

TEST_F(RecordFile, IsNoPipe) {
  ASSERT_EQ(::mkfifo(PathOf("fifo").toUtf8().constData(), 0600), 0);
  EXPECT_EQ(WordsOfATalk(PathOf("fifo")).count("is not a regular file"), 2);
  const int reader = ::open(PathOf("fifo").toUtf8().constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  EXPECT_EQ(WordsOfATalk(PathOf("fifo")).count("is not a regular file"), 2);
  EXPECT_EQ(ReadToEnd(reader), "");
  ::close(reader);
}

TEST_F(RecordFile, OfNoUseDoesNotKillAProcessWhoseStandardErrorIsClosed) {
  const auto before = std::signal(SIGPIPE, SIG_DFL);
  for (const char* record : {"/dev/fd/2", "/no/such/folder/trace"}) {
    const ScopedVariable trace("RUNTIME_MANAGER_TRACE", record);
    StderrPipe pipe;
    pipe.CloseReadEnd();
    Process starter(HELPER, {"talk", "echo"});
    EXPECT_EQ(starter.Wait(), 0) << record;
  }
  std::signal(SIGPIPE, before);
}

TEST_F(RecordFile, OfNoUseDoesNotStopAProcessWhoseStandardErrorTakesNothing) {
  const ScopedVariable trace("RUNTIME_MANAGER_TRACE", "/no/such/folder/trace");
  StderrPipe pipe;
  pipe.Fill();
  const Rescuer rescuer(pipe);
  Process starter(HELPER, {"talk", "echo"});
  EXPECT_EQ(starter.Wait(), 0);
  EXPECT_FALSE(rescuer.WasNeeded());
}

}  // namespace
}  // namespace kit

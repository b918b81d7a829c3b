// What only a whole process can show: its death, its exit, its environment, its record.
#include <gmock/gmock.h>
#include <unistd.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <csignal>
#include <cstring>
#include <map>

#include "kit.h"

namespace kit {
namespace {

class ProcessTest : public PlatformTest {
 protected:
  static constexpr char kNotesItsEnd[] =
      "trap 'echo term >> $WORLD/end; exit 0' TERM; echo $$ > $WORLD/pid\n"
      "while :; do sleep 0.05; done";
  void SetUp() override {
    PlatformTest::SetUp();
    AddShellTask("task", kNotesItsEnd);
  }
};

TEST_F(ProcessTest, TellsTheTaskBySigtermThatItsStarterHasDied) {
  Process starter(HELPER, {"start", "task"});
  const QString line = QString::fromStdString(starter.ReadLine());
  ASSERT_TRUE(line.startsWith("started ")) << line.toStdString();
  ASSERT_TRUE(WaitForFile(PathOf("pid"), "\n"));
  EXPECT_EQ(SocketFiles().size(), 1);
  starter.Kill();
  EXPECT_TRUE(WaitForFile(PathOf("end"), "term"));
  starter.Wait();
  // What the crash left behind is swept by the next starter, once the task is gone, too.
  EXPECT_TRUE(RunUntil([&line] {
    const int socket = ConnectTo(line.mid(static_cast<int>(std::strlen("started "))));
    ::close(socket);
    return socket < 0;
  }));
  EXPECT_EQ(SocketFiles().size(), 1);
  Process next(HELPER, {"start", "task", "exit"});
  next.ReadLine();
  next.Wait();
  EXPECT_EQ(SocketFiles().size(), 0);
}

TEST_F(ProcessTest, LeavesNoSocketBehindAtAnyOrderlyExit) {
  for (const char* way : {"exit", "quit", "delete"}) {
    QFile::remove(PathOf("end"));
    Process starter(HELPER, {"start", "task", way});
    EXPECT_THAT(starter.ReadLine(), testing::StartsWith("started ")) << way;
    EXPECT_EQ(starter.Wait(), 0) << way;
    EXPECT_EQ(SocketFiles().size(), 0) << way;
  }
}

TEST_F(ProcessTest, EndsTheTaskWhenThereIsNoApplicationObjectAnyMore) {
  AddShellTask("stubborn", "trap '' TERM; echo $$ > $WORLD/stubborn; while :; do sleep 0.05; done");
  Process starter(HELPER, {"outlive", "stubborn"});
  EXPECT_EQ(starter.ReadLine(), "started ");
  EXPECT_EQ(starter.ReadLine(), "deleted");
  EXPECT_EQ(starter.Wait(), 0);
  const auto pid = static_cast<pid_t>(ReadFile(PathOf("stubborn")).trimmed().toInt());
  if (pid != 0) {
    EXPECT_TRUE(IsGone(pid));
  }
}

// The objects of the first application live on, and have what they watch their tasks with.
TEST_F(ProcessTest, ServesTheNextApplicationObjectAsItDidTheFirst) {
  AddPythonTask("talk",
                "c, _ = server.accept()\nc.recv(100)\n"
                "c.sendall(b'{\"data\":\"%d\"}\\n' % os.getpid())\nc.recv(1)");
  Process starter(HELPER, {"two-applications", "talk"});
  EXPECT_EQ(starter.ReadLine(), "started answered stopped");
  EXPECT_EQ(starter.ReadLine(), "started answered finished");
  EXPECT_EQ(starter.Wait(), 0);
}

TEST_F(ProcessTest, FindsTasksBesideItsOwnExecutable) {
  ASSERT_TRUE(QDir(PathOf("")).mkpath("bin/tasks"));
  ASSERT_TRUE(QFile::copy(HELPER, PathOf("bin/starter")));
  ASSERT_TRUE(QFile::copy(PathOf("tasks/task"), PathOf("bin/tasks/beside")));
  const ScopedVariable unset("RUNTIME_MANAGER_TASK_PATH", QByteArray());
  Process starter(PathOf("bin/starter"), {"start", "beside", "delete"});
  EXPECT_THAT(starter.ReadLine(), testing::StartsWith("started "));
  starter.Wait();
}

TEST_F(ProcessTest, FindsItsSocketAndRemovesTheVariables) {
  AddHelperTask("helper");
  for (const bool with_socket : {true, false}) {
    QFile::remove(PathOf("report"));
    Task task("helper");
    task.withIpcSocket(with_socket);
    task.withArguments({"report"});
    ExpectStarts(task);
    ASSERT_TRUE(WaitForFile(PathOf("report"), "\n"));
    EXPECT_EQ(ReadFile(PathOf("report")).trimmed(),
              with_socket ? "set 1 socket 3 left" : "set 0 socket -1 left");
  }
}

TEST_F(ProcessTest, IgnoresAnActivationThatWasMeantForAnother) {
  const ScopedVariable pid("LISTEN_PID", "1");
  const ScopedVariable count("LISTEN_FDS", "1");
  Process process(HELPER, {"report"});
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_EQ(ReadFile(PathOf("report")).trimmed(), "set 1 socket -1 left");
}

TEST_F(ProcessTest, SaysWhichTaskHasNoSocketAlthoughItIsActivated) {
  const QString activated =
      "LISTEN_PID=$$ LISTEN_FDS=1 LISTEN_FDNAMES=promised exec " HELPER " report 3< /dev/null";
  StderrPipe words;
  Process process("/bin/sh", {"-c", activated});
  EXPECT_EQ(process.Wait(), 0);
  EXPECT_EQ(ReadFile(PathOf("report")).trimmed(), "set 1 socket -1 left");
  EXPECT_THAT(words.ReadToEnd().toStdString(),
              testing::HasSubstr("the task 'promised': LISTEN_FDS promises a socket as descriptor "
                                 "3, but that is no listening Unix socket"));
}

// Whoever waits at a socket that nobody will serve hears of it, although the process lives on.
TEST_F(ProcessTest, ClosesASocketThatItCannotServe) {
  QFile script(PathOf("activate"));
  ASSERT_TRUE(script.open(QIODevice::WriteOnly));
  script.write(
      "import os, signal, socket, time\n"
      "own, other = socket.socketpair()\n"
      "child = os.fork()\n"
      "if child == 0:\n"
      "  own.close()\n"
      "  os.dup2(other.fileno(), 3)\n"
      "  os.set_inheritable(3, True)\n"
      "  os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS='1')\n"
      "  os.execv('" HELPER
      "', ['helper', 'stubborn', 'serving'])\n"
      "other.close()\n"
      "own.settimeout(20)\n"
      "try:\n"
      "  is_over = own.recv(1) == b'' and os.waitpid(child, os.WNOHANG) == (0, 0)\n"
      "except TimeoutError:\n"
      "  is_over = False\n"
      "os.kill(child, signal.SIGKILL)\n"
      "os.waitpid(child, 0)\n"
      "raise SystemExit(0 if is_over else 1)\n");
  script.close();
  EXPECT_EQ(Process(PYTHON, {"-S", script.fileName()}).Wait(), 0);
}

// The record of one envelope that a starter sent to the task "echo", and its way back.
void ExpectRecordOfEcho(const QByteArray& trace, const QJsonObject& envelope) {
  QList<QByteArray> lines;
  for (const QByteArray& line : trace.split('\n')) {
    if (line.contains("\"direction\":")) {
      lines << line;
    }
  }
  EXPECT_TRUE(trace.endsWith('\n'));
  ASSERT_EQ(lines.size(), 4);
  // Two processes write it: the lines are in their order by the time.
  std::map<qint64, QJsonObject> records;
  for (const QByteArray& line : lines) {
    const QJsonObject record = QJsonDocument::fromJson(line).object();
    records[static_cast<qint64>(record["time"].toDouble())] = record;
  }
  ASSERT_EQ(records.size(), 4U);
  EXPECT_GT(records.begin()->first, 0);
  QStringList seen;
  std::vector<qint64> pids;
  for (const auto& [time, record] : records) {
    EXPECT_EQ(record.keys(), (QStringList{"direction", "envelope", "pid", "task", "time"})) << time;
    EXPECT_EQ(record["task"], "echo");
    EXPECT_EQ(record["envelope"], QJsonValue(envelope));
    seen << record["direction"].toString();
    pids.push_back(static_cast<qint64>(record["pid"].toDouble()));
  }
  EXPECT_EQ(seen, (QStringList{"send", "receive", "send", "receive"}));
  EXPECT_EQ(pids[0], pids[3]);
  EXPECT_EQ(pids[1], pids[2]);
  EXPECT_NE(pids[0], pids[1]);
}

TEST_F(ProcessTest, RecordsEveryEnvelopeOfBothProcesses) {
  const ScopedVariable trace("RUNTIME_MANAGER_TRACE", PathOf("trace").toUtf8());
  AddHelperTask("echo");
  Process starter(HELPER, {"talk", "echo"});
  EXPECT_EQ(starter.Wait(), 0);
  ExpectRecordOfEcho(ReadFile(PathOf("trace")), Data("hello \"you\""));
}

TEST_F(ProcessTest, RecordsTheTimeBeforeTheCallThatSentTheMessage) {
  const ScopedVariable trace("RUNTIME_MANAGER_TRACE", PathOf("trace").toUtf8());
  const ScopedVariable slow("SLOW_SENDS", "1");
  AddHelperTask("echo");
  Process starter(HELPER, {"talk", "echo"});
  EXPECT_EQ(starter.Wait(), 0);
  ExpectRecordOfEcho(ReadFile(PathOf("trace")), Data("hello \"you\""));
}

// The lines of the record that tell of events, in their order by the time.
std::vector<QJsonObject> EventsOf(const QByteArray& trace) {
  std::map<qint64, QJsonObject> events;
  for (const QByteArray& line : trace.split('\n')) {
    const QJsonObject record = QJsonDocument::fromJson(line).object();
    if (record.contains("event")) {
      events[static_cast<qint64>(record["time"].toDouble())] = record;
    }
  }
  std::vector<QJsonObject> ordered;
  for (const auto& [time, event] : events) {
    ordered.push_back(event);
  }
  return ordered;
}

// The starter's connection is made before the task's process, and taken when it talks.
TEST_F(ProcessTest, RecordsTheStartTheConnectionsAndTheEndOfATask) {
  const ScopedVariable trace("RUNTIME_MANAGER_TRACE", PathOf("trace").toUtf8());
  AddHelperTask("echo");
  Process starter(HELPER, {"talk", "echo"});
  EXPECT_EQ(starter.Wait(), 0);
  const auto events = EventsOf(ReadFile(PathOf("trace")));
  ASSERT_EQ(events.size(), 4U);
  EXPECT_EQ(events[0]["event"], "start");
  EXPECT_EQ(events[0]["starter"], "platform_helper");
  EXPECT_EQ(events[0]["program"], PathOf("tasks/echo"));
  int of_task = 0;
  for (const QJsonObject& connection : {events[1], events[2]}) {
    EXPECT_EQ(connection["event"], "connection");
    if (connection["pid"] == events[0]["process"]) {
      ++of_task;
      EXPECT_EQ(connection["process"], events[0]["pid"]);
    }
  }
  EXPECT_EQ(of_task, 1);
  EXPECT_EQ(events[3]["event"], "end");
  EXPECT_EQ(events[3]["process"], events[0]["process"]);
  EXPECT_NE(events[3]["reason"].toString(), "");
  for (const QJsonObject& event : events) {
    EXPECT_EQ(event["task"], "echo");
  }
}

TEST_F(ProcessTest, RecordsATextAsTheEnvelopeThatItIs) {
  const ScopedVariable trace("RUNTIME_MANAGER_TRACE", PathOf("trace").toUtf8());
  AddHelperTask("echo");
  Process starter(HELPER, {"talk", "echo", "text"});
  EXPECT_EQ(starter.Wait(), 0);
  ExpectRecordOfEcho(ReadFile(PathOf("trace")), Data("hello"));
}

TEST_F(ProcessTest, WorksOnWhenTheRecordCannotBeOpened) {
  const ScopedVariable trace("RUNTIME_MANAGER_TRACE", "/no/such/folder/trace");
  AddHelperTask("echo");
  Process starter(HELPER, {"talk", "echo"});
  EXPECT_EQ(starter.Wait(), 0);
}

}  // namespace
}  // namespace kit

// The example "checksums" as its user meets it: a program with a folder for an argument.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "kit/program.h"
#include "kit/surroundings.h"

namespace tarv::test {
namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

constexpr uid_t kNobody = 65534;
// Takes any machine long enough to hash that something can happen meanwhile.
constexpr std::uintmax_t kHugeSize = std::uintmax_t{64} << 30;

class Checksums : public testing::Test {
 protected:
  Checksums() {
    // What the program leaves behind becomes a child of this process, where it is found.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    fs::create_directory(work_);
  }
  ~Checksums() override {
    EXPECT_THAT(Children(), IsEmpty()) << "a process is left behind";
    EXPECT_THAT(SocketsBelow(runtime_.GetPath()), IsEmpty()) << "a socket is left behind";
  }

  fs::path Write(const std::string& name, const std::string& contents) const {
    const fs::path path = work_ / name;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << contents;
    return path;
  }

  // A file without blocks, which takes minutes to hash.
  void WriteHuge() const { fs::resize_file(Write("huge", ""), kHugeSize); }

  int Check(const std::string& sums) const {
    const fs::path list = runtime_.GetPath() / "sums";
    std::ofstream(list, std::ios::binary) << sums;
    return Program({"/usr/bin/sha256sum", "--check", "--strict", "--quiet", list.string()},
                   {work_.string(), false, 0, {}})
        .Wait();
  }

  static auto CountLines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
  }

  RuntimeFolder runtime_;
  const fs::path work_ = runtime_.GetPath() / "work";
};

TEST_F(Checksums, AreWhatSha256sumChecks) {
  Write("plain", "hello\n");
  Write("empty", "");
  Write("deep/er/still/here", "x");
  Write("more than a slice", std::string((3U << 20) + 17, 'm'));
  Write("-leading dash", "1");
  Write("back\\slash", "2");
  Write("line\nbreak", "3");
  Write("return\rhere", "4");
  Write("bytes \xff\xfe that are no text", "5");
  Write("Grüße 🚀", "6");
  fs::create_symlink("plain", work_ / "a link");
  for (int i = 0; i < 300; ++i) {
    Write("many/" + std::to_string(i), std::to_string(i));
  }
  Program program({CHECKSUMS_PROGRAM, "."}, {work_.string(), false, 0, {}});
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_EQ(CountLines(program.GetOutput()), 310);
  EXPECT_EQ(Check(program.GetOutput()), 0);
}

TEST_F(Checksums, AreThoseOfTheFolderWhereYouAreWithoutAnArgument) {
  Write("plain", "hello\n");
  Program program({CHECKSUMS_PROGRAM}, {work_.string(), false, 0, {}});
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_EQ(program.GetOutput(),
            "5891b5b522d5df086d0ff0b110fbd9d21bb4fc7163af34d08286a2e846f6be03  ./plain\n");
}

TEST_F(Checksums, OfAnEmptyFolderAreNone) {
  Program program({CHECKSUMS_PROGRAM, work_.string()});
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_EQ(program.GetOutput(), "");
}

TEST_F(Checksums, LeaveOutTheFileThatTheyAreWrittenTo) {
  Write("plain", "hello\n");
  const fs::path sums = work_ / "sums";
  Program program({CHECKSUMS_PROGRAM, "."}, {work_.string(), false, 0, sums.string()});
  EXPECT_EQ(program.Wait(), 0);
  std::ifstream file(sums);
  const std::string text((std::istreambuf_iterator<char>(file)), {});
  EXPECT_EQ(CountLines(text), 1);
  EXPECT_EQ(Check(text), 0);
}

TEST_F(Checksums, ShowTheirProgressInPlainLinesWhereThereIsNoTerminal) {
  Write("half", std::string(1U << 20, 'a'));
  Write("other half", std::string(1U << 20, 'b'));
  Program program({CHECKSUMS_PROGRAM, work_.string()});
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_THAT(program.GetError(), MatchesRegex("checksums: 50 % \\([01] of 2 files\\)\n(.|\n)*"));
  EXPECT_THAT(program.GetError(), EndsWith("checksums: 100 % (2 of 2 files)\n"));
  EXPECT_THAT(program.GetError(), Not(HasSubstr("\r")));
}

TEST_F(Checksums, ShowTheirProgressAsABarOnATerminal) {
  Write("half", std::string(1U << 20, 'a'));
  Write("other half", std::string(1U << 20, 'b'));
  Program program({CHECKSUMS_PROGRAM, work_.string()}, {{}, true, 0, {}});
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_THAT(program.GetError(), HasSubstr("\r[####################                    ] 50 %  "));
  EXPECT_THAT(program.GetError(), EndsWith("\r\033[K"));
  EXPECT_EQ(CountLines(program.GetOutput()), 2);
}

TEST_F(Checksums, ReportProgressInsideOneLargeFile) {
  WriteHuge();
  Write("small", std::string(1, 'a'));
  Program program({CHECKSUMS_PROGRAM, work_.string()}, {{}, true, 0, {}});
  ASSERT_TRUE(program.WaitForError("0/2 files"));
  program.Signal(SIGINT);
  EXPECT_EQ(program.Wait(), 130);
}

TEST_F(Checksums, OfAFolderThatIsNotThereAreRefusedInOneLine) {
  Program program({CHECKSUMS_PROGRAM, "/no/such/folder"});
  EXPECT_EQ(program.Wait(), 2);
  EXPECT_EQ(program.GetError(), "checksums: there is no folder '/no/such/folder'\n");
  EXPECT_EQ(program.GetOutput(), "");
}

TEST_F(Checksums, WithTwoFoldersShowTheUsage) {
  Program program({CHECKSUMS_PROGRAM, "a", "b"});
  EXPECT_EQ(program.Wait(), 2);
  EXPECT_EQ(program.GetError(), "usage: checksums [FOLDER]\n");
}

// As somebody whom permissions bind.
TEST_F(Checksums, NameEachFileAndFolderThatCannotBeReadAndHashTheOthers) {
  Write("open", "x");
  fs::permissions(Write("secret", "y"), fs::perms::none);
  fs::permissions(Write("closed/inside", "z").parent_path(), fs::perms::none);
  if (getuid() == 0) {
    ASSERT_EQ(chown(runtime_.GetPath().c_str(), kNobody, kNobody), 0);
  }
  Program program({CHECKSUMS_PROGRAM, "."}, {work_.string(), false, kNobody, {}});
  EXPECT_EQ(program.Wait(), 1);
  fs::permissions(work_ / "closed", fs::perms::owner_all);
  EXPECT_THAT(program.GetError(), HasSubstr("checksums: ./secret: Permission denied\n"));
  EXPECT_THAT(program.GetError(), HasSubstr("checksums: ./closed: Permission denied\n"));
  EXPECT_EQ(CountLines(program.GetError()), 4) << "a line each, and two of the progress";
  EXPECT_THAT(program.GetOutput(), EndsWith("  ./open\n"));
  EXPECT_EQ(CountLines(program.GetOutput()), 1);
}

TEST_F(Checksums, WithoutTheTaskSayWhereItWasLookedFor) {
  Write("plain", "x");
  const fs::path alone = runtime_.GetPath() / "checksums";
  fs::copy_file(CHECKSUMS_PROGRAM, alone);
  Program program({alone.string(), work_.string()});
  EXPECT_EQ(program.Wait(), 3);
  EXPECT_THAT(program.GetError(), StartsWith("checksums: the task could not be started: "));
  EXPECT_THAT(program.GetError(), HasSubstr((runtime_.GetPath() / "tasks").string()));
  EXPECT_EQ(CountLines(program.GetError()), 1);
}

TEST_F(Checksums, SayHowATaskEndedThatIsKilledHalfWay) {
  WriteHuge();
  Program program({CHECKSUMS_PROGRAM, work_.string()}, {{}, true, 0, {}});
  ASSERT_TRUE(program.WaitForError("0/1 files"));
  ASSERT_EQ(program.Children().size(), 1U);
  kill(program.Children()[0], SIGKILL);
  EXPECT_EQ(program.Wait(), 3);
  EXPECT_THAT(program.GetError(),
              HasSubstr("checksums: the task ended before its work was done: "));
  EXPECT_THAT(program.GetError(), HasSubstr("signal 9"));
  EXPECT_EQ(CountLines(program.GetError()), 1);
  EXPECT_EQ(program.GetOutput(), "");
}

TEST_F(Checksums, SayInOneLineHowATaskEndedThatHadMuchToSay) {
  WriteHuge();
  const fs::path alone = runtime_.GetPath() / "checksums";
  const fs::path task = runtime_.GetPath() / "tasks" / "checksums";
  fs::copy_file(CHECKSUMS_PROGRAM, alone);
  fs::create_directory(task.parent_path());
  std::ofstream(task) << "#!/bin/sh\necho one >&2\necho two >&2\nexec '" BIN_FOLDER
                         "/tasks/checksums' \"$@\"\n";
  fs::permissions(task, fs::perms::owner_all);
  Program program({alone.string(), work_.string()}, {{}, true, 0, {}});
  ASSERT_TRUE(program.WaitForError("0/1 files"));
  kill(program.Children().at(0), SIGKILL);
  EXPECT_EQ(program.Wait(), 3);
  EXPECT_THAT(program.GetError(), StartsWith("one\r\ntwo\r\n"));
  EXPECT_THAT(program.GetError(),
              HasSubstr("checksums: the task ended before its work was done: "));
  EXPECT_THAT(program.GetError(), EndsWith("; its last words: one | two\r\n"));
  EXPECT_EQ(CountLines(program.GetError()), 3);
}

TEST_F(Checksums, StopAtOnceWhenInterrupted) {
  WriteHuge();
  Program program({CHECKSUMS_PROGRAM, work_.string()}, {{}, true, 0, {}});
  ASSERT_TRUE(program.WaitForError("0/1 files"));
  program.Signal(SIGINT);
  EXPECT_EQ(program.Wait(), 130);
  EXPECT_THAT(program.GetError(), HasSubstr("checksums: interrupted"));
  EXPECT_EQ(CountLines(program.GetError()), 1);
}

TEST_F(Checksums, GoOnWhenTheTaskAloneIsInterrupted) {
  WriteHuge();
  Program program({CHECKSUMS_PROGRAM, work_.string()}, {{}, true, 0, {}});
  ASSERT_TRUE(program.WaitForError("0/1 files"));
  kill(program.Children().at(0), SIGINT);
  // Long enough for the signal to have its effect, if it had any.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(program.Children().size(), 1U);
  program.Signal(SIGINT);
  EXPECT_EQ(program.Wait(), 130);
}

// A terminal interrupts all processes of its foreground group.
TEST_F(Checksums, SayThatTheyAreInterruptedWhenATerminalInterruptsTheTaskToo) {
  WriteHuge();
  Program program({"/usr/bin/setsid", CHECKSUMS_PROGRAM, work_.string()}, {{}, true, 0, {}});
  ASSERT_TRUE(program.WaitForError("0/1 files"));
  const int task = program.Children().at(0);
  program.Signal(SIGSTOP);
  ASSERT_EQ(kill(-getpgid(task), SIGINT), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // a busy program hears it late
  program.Signal(SIGCONT);
  EXPECT_EQ(program.Wait(), 130);
  EXPECT_THAT(program.GetError(), HasSubstr("checksums: interrupted"));
  EXPECT_THAT(program.GetError(), Not(HasSubstr("ended")));
}

TEST_F(Checksums, EndTheTaskOfAnApplicationThatIsKilled) {
  WriteHuge();
  Program program({CHECKSUMS_PROGRAM, work_.string()}, {{}, true, 0, {}});
  ASSERT_TRUE(program.WaitForError("0/1 files"));
  const int task = program.Children().at(0);
  program.Signal(SIGKILL);
  EXPECT_EQ(program.Wait(), 128 + SIGKILL);
  EXPECT_EQ(waitpid(task, nullptr, 0), task);
  // The next application sweeps what the killed one could not take away.
  Program next({CHECKSUMS_PROGRAM, fs::path(CHECKSUMS_PROGRAM).parent_path() / "tasks"});
  EXPECT_EQ(next.Wait(), 0);
}

}  // namespace
}  // namespace tarv::test

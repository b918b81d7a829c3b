#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <string>

namespace {

struct Outcome {
  std::string output;
  int exit_code;
};

// Runs the sample program with these arguments, standard error included in its output.
Outcome RunSample(const std::string& arguments) {
  FILE* const pipe = popen((SAMPLE_PROGRAM " " + arguments + " 2>&1").c_str(), "r");
  if (pipe == nullptr) {
    return {"cannot start " SAMPLE_PROGRAM, -1};
  }
  std::string output;
  std::array<char, 256> line{};
  while (fgets(line.data(), line.size(), pipe) != nullptr) {
    output += line.data();
  }
  const int status = pclose(pipe);
  return {output, WIFEXITED(status) ? WEXITSTATUS(status) : -status};
}

std::string GetDefaultLibraryPath() {
  return (std::filesystem::path(SAMPLE_PROGRAM).parent_path() / ".." / "lib")
      .lexically_normal()
      .string();
}

TEST(RunApplication, RegistersPluginsPlaysDartAndReleasesPluginsAtTheEnd) {
  const Outcome outcome = RunSample("application one two");
  EXPECT_EQ(outcome.output, "library path " + GetDefaultLibraryPath() +
                                "\nargument one\nargument two\ndart 1\nreporting released\n");
  EXPECT_EQ(outcome.exit_code, 7);
}

TEST(RunApplication, EndsInOrderOnASignal) {
  const Outcome outcome = RunSample("application wait-for-signal");
  EXPECT_NE(outcome.output.find("reporting released\n"), std::string::npos) << outcome.output;
  EXPECT_EQ(outcome.exit_code, 128 + 15);
}

TEST(RunApplication, EndsAtOnceByASignalThatItCannotTellItself) {
  const Outcome outcome = RunSample("application block-and-wait-for-signal");
  EXPECT_EQ(outcome.output.find("reporting released"), std::string::npos) << outcome.output;
  EXPECT_THAT(outcome.exit_code, testing::AnyOf(128 + 15, -15)) << outcome.output;
}

TEST(RunApplication, EndsWhenExitOrASignalComesWhileDartRunsTheLoop) {
  EXPECT_EQ(RunSample("application dart-runs-loop").exit_code, 7);
  EXPECT_EQ(RunSample("application wait-for-signal dart-runs-loop").exit_code, 128 + 15);
}

TEST(RunTask, MakesTheFolderAfterLibsPathTheLibraryPath) {
  const Outcome outcome = RunSample("task --libs-path /opt/app/lib more");
  EXPECT_EQ(outcome.output, "library path /opt/app/lib\nargument more\nreporting released\n");
  EXPECT_EQ(outcome.exit_code, 7);
}

TEST(RunTask, HasADefaultLibraryPathWithoutTheOption) {
  EXPECT_EQ(RunSample("task").output,
            "library path " + GetDefaultLibraryPath() + "\nreporting released\n");
}

TEST(RunTask, RefusesLibsPathWithoutAFolder) {
  for (const char* arguments : {"task --libs-path", "task --libs-path ''"}) {
    const Outcome outcome = RunSample(arguments);
    EXPECT_EQ(outcome.exit_code, 64);
    EXPECT_EQ(outcome.output,
              "The option --libs-path needs the folder of the application's libraries after it: "
              "--libs-path DIR\n");
  }
}

}  // namespace

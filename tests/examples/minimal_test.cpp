// The example "minimal" as its reader runs it.

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "kit/program.h"
#include "kit/surroundings.h"

namespace tarv::test {
namespace {

using testing::HasSubstr;

TEST(Minimal, PrintsTheSumThatTheTaskWorksOut) {
  const RuntimeFolder folder;
  Program program({BIN_FOLDER "/minimal"});
  EXPECT_EQ(program.Wait(), 0);
  EXPECT_EQ(program.GetOutput(), "20 + 22 = 42\n");
}

TEST(Minimal, WithoutItsTaskSaysWhereItLooked) {
  const RuntimeFolder folder;
  const auto bin = folder.GetPath() / "bin";
  std::filesystem::create_directory(bin);
  std::filesystem::copy_file(BIN_FOLDER "/minimal", bin / "minimal");
  std::filesystem::create_directory_symlink(BIN_FOLDER "/../lib", folder.GetPath() / "lib");
  Program program({(bin / "minimal").string()});
  EXPECT_EQ(program.Wait(), 1);
  EXPECT_THAT(program.GetError(), HasSubstr("'add' of the task 'minimal' was not sent: "));
  EXPECT_THAT(program.GetError(), HasSubstr((bin / "tasks").string()));
}

TEST(Minimal, PrintsTheWholeCauseOfItsTasksDeath) {
  const RuntimeFolder folder;
  const auto bin = folder.GetPath() / "bin";
  std::filesystem::create_directories(bin / "tasks");
  std::filesystem::copy_file(BIN_FOLDER "/minimal", bin / "minimal");
  std::filesystem::create_directory_symlink(BIN_FOLDER "/../lib", folder.GetPath() / "lib");
  const std::string words = std::string(300, 'x') + " last words";
  std::ofstream(bin / "tasks" / "minimal") << "#!/bin/sh\necho '" << words << "' >&2\nexit 3\n";
  std::filesystem::permissions(bin / "tasks" / "minimal", std::filesystem::perms::owner_all);
  Program program({(bin / "minimal").string()});
  EXPECT_EQ(program.Wait(), 1);
  EXPECT_THAT(program.GetError(), HasSubstr(words));
}

}  // namespace
}  // namespace tarv::test

// The example "minimal" as its reader runs it.

#include <gmock/gmock.h>

#include <filesystem>

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
  EXPECT_THAT(program.GetError(), HasSubstr("-32603"));
  EXPECT_THAT(program.GetError(), HasSubstr((bin / "tasks").string()));
}

}  // namespace
}  // namespace tarv::test

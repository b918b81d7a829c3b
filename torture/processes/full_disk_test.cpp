// The disk of the runtime folder, or of the files that are written on the way, has no room.

#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <optional>

#include "end_to_end/application.h"
#include "in_time.h"
#include "kit/program.h"
#include "small_disk.h"

namespace tarv::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

class FullDisk : public EndToEndTest {
 protected:
  void SetUp() override {
    disk_.emplace(folder_.GetPath() / "disk");
    if (!disk_->WhyNot().empty()) {
      GTEST_SKIP() << disk_->WhyNot();
    }
    runtime_.emplace("XDG_RUNTIME_DIR", disk_->GetPath().string());
  }

  void ExpectThatItSaysSo() {
    const auto connection = Start("mortal");
    connection->client->Run();
    connection->Send("echo", 1);
    ASSERT_TRUE(connection->WaitForResponses(1));
    const Response& response = connection->record->responses.front();
    ASSERT_TRUE(response.IsError());
    EXPECT_THAT(response.GetError()->message,
                AllOf(HasSubstr((disk_->GetPath() / "runtime-manager").string()),
                      HasSubstr("No space left on device")));
    EXPECT_THAT(Children(), IsEmpty());
    EXPECT_THAT(SocketsBelow(disk_->GetPath()), IsEmpty());
  }
  void ExpectThatATaskServes() {
    auto connection = StartConnected("mortal");
    EXPECT_EQ(connection->Ask("echo", 2), cw::EncodableValue(2));
    connection.reset();
    EXPECT_TRUE(IsOverInTime([this](std::chrono::milliseconds limit) {
      return WaitUntil(
          [this] { return Children().empty() && SocketsBelow(disk_->GetPath()).empty(); }, limit);
    }));
  }

  std::optional<SmallDisk> disk_;
  std::optional<ScopedVariable> runtime_;
};

TEST_F(FullDisk, WithoutRoomForTheRuntimeFolderEndsAStartWithAnErrorAndNoLaterOne) {
  disk_->FillWithFiles();
  ExpectThatItSaysSo();
  disk_->Clear();
  ExpectThatATaskServes();
}

TEST_F(FullDisk, WithoutRoomForASocketEndsAStartWithAnErrorAndNoLaterOne) {
  ExpectThatATaskServes();  // now there is the folder
  disk_->FillWithFiles();
  ExpectThatItSaysSo();
  disk_->Clear();
  ExpectThatATaskServes();
}

std::string TextOf(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

class RecordOnAFullDisk : public FullDisk {
 protected:
  // What a whole conversation says on standard error, by processes that write their files there.
  std::string Converse() const {
    const RuntimeFolder elsewhere;
    const ScopedVariable record("RUNTIME_MANAGER_TRACE", GetRecord().string());
    const ScopedVariable copy("RUNTIME_MANAGER_STDERR", (disk_->GetPath() / "errors").string());
    Program application({MOURNER_PROGRAM});
    EXPECT_EQ(application.Wait(), 0) << application.GetError();
    return application.GetError();
  }
  std::filesystem::path GetRecord() const { return disk_->GetPath() / "record"; }
};

TEST_F(RecordOnAFullDisk, HasGapsThatAreToldAndNobodyElseIsDisturbed) {
  disk_->FillWithBytes();
  // The task's own warning is what the copy of its standard error has no room for.
  EXPECT_THAT(
      Converse(),
      AllOf(HasSubstr("the record in RUNTIME_MANAGER_TRACE has gaps: No space left on device"),
            HasSubstr("the copy of the standard error of the task 'mortal' in "
                      "RUNTIME_MANAGER_STDERR ends here: "
                      "No space left on device")));
  EXPECT_EQ(TextOf(GetRecord()), "");
  disk_->Clear();
  EXPECT_EQ(Converse(), "");
  EXPECT_THAT(TextOf(GetRecord()), HasSubstr("\"event\":\"end\""));
}

}  // namespace
}  // namespace tarv::test

// Messages that are longer than Qt can count.

#include <RuntimeManager/TaskMessaging.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "fake_platform.h"
#include "support/capture.h"
#include "support/log_line.h"

namespace tarv::test {
namespace {

using RuntimeManager::Error;
using RuntimeManager::TaskMessaging;
using testing::IsEmpty;

// A text of 4 GiB and a few bytes, so that a size cut to 32 bits is small again. It is one piece of
// memory that is there many times over.
class LongText {
 public:
  LongText() {
    if (file_ < 0 || address_ == MAP_FAILED || ftruncate(file_, kPiece) != 0) {
      throw std::runtime_error("no room for a long text");
    }
    for (std::size_t at = 0; at < kSize; at += kPiece) {
      if (mmap(Begin() + at, kPiece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file_, 0) ==
          MAP_FAILED) {
        throw std::runtime_error("a piece of a long text cannot be mapped");
      }
    }
    std::memset(Begin(), 'x', kPiece);
    // The few bytes are of a page of their own, whose zeros end the text.
    std::memset(Begin() + kSize, 'x', kRest);
  }
  ~LongText() {
    munmap(address_, kReserved);
    close(file_);
  }
  LongText(const LongText&) = delete;
  LongText& operator=(const LongText&) = delete;

  const char* Get() const { return Begin(); }

 private:
  static constexpr std::size_t kPiece = std::size_t{16} << 20;
  static constexpr std::size_t kSize = std::size_t{4} << 30;
  static constexpr std::size_t kRest = 5;
  static constexpr std::size_t kReserved = kSize + 4096;

  char* Begin() const { return static_cast<char*>(address_); }

  const int file_ = memfd_create("long text", MFD_CLOEXEC);
  void* const address_ = mmap(nullptr, kReserved, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
};

constexpr char kLine[] =
    "Could not send a message of 4294967301 bytes: it may have 1073741760. Send it in parts.";

class OverlongMessage : public FakePlatform {};

TEST_F(OverlongMessage, FromAClientIsRefusedWithALineInsteadOfCut) {
  const LongText text;
  Start().complete_start(Error());
  EXPECT_THAT(
      StdoutOf([&] { EXPECT_EQ(table_.SendMessage(client_, text.Get()), QUARN_RESULT_REFUSED); }),
      IsLogLine("error", kLine));
  EXPECT_THAT(TaskMessaging::GetAll().at(0)->sent, IsEmpty());
}

TEST_F(OverlongMessage, FromAServerIsRefusedWithALineInsteadOfCut) {
  const LongText text;
  _TARVRpcServerRef* const server = root_.GetRpcServer(manager_);
  server_table_.Run(server, nullptr);
  QuarnResult result = QUARN_RESULT_SUCCESS;
  EXPECT_THAT(StdoutOf([&] { result = server_table_.SendMessage(server, text.Get()); }),
              IsLogLine("error", kLine));
  EXPECT_EQ(result, QUARN_RESULT_REFUSED);
  EXPECT_THAT(TaskMessaging::GetAll().at(0)->sent, IsEmpty());
}

}  // namespace
}  // namespace tarv::test

#include <cw/byte_streams.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "support/bytes.h"
#include "support/stderr_capture.h"

namespace cw {
namespace {

using test_support::Bytes;
using test_support::FromHex;
using test_support::StderrCapture;
using test_support::ToBytes;

constexpr const char* kInvalidRead = "Invalid read in StandardCodecByteStreamReader\n";

TEST(ByteBufferStreamWriter, ForwardsToItsBuffer) {
  quarn::Buffer buffer;
  ByteBufferStreamWriter writer(&buffer);
  const Bytes bytes = {2, 3};
  writer.WriteByte(1);
  writer.WriteBytes(bytes.data(), bytes.size());
  writer.WriteBytes(nullptr, 0);
  writer.WriteAlignment(8);
  writer.WriteByte(4);
  writer.WriteAlignment(1);
  EXPECT_EQ(ToBytes(buffer), FromHex("01 02 03 00*5 04"));
}

TEST(ByteBufferStreamWriter, AlignsFromTheStartOfTheBuffer) {
  quarn::Buffer buffer(Bytes{9, 9, 9});
  ByteBufferStreamWriter writer(&buffer);
  writer.WriteAlignment(4);
  EXPECT_EQ(buffer.GetSize(), 4U);
}

TEST(ByteBufferStreamReader, ReadsItsBytesInOrder) {
  const Bytes bytes = FromHex("01 02 03 04 05");
  ByteBufferStreamReader reader(bytes.data(), bytes.size());
  Bytes out(2);
  EXPECT_EQ(reader.BytesLeft(), 5U);
  EXPECT_EQ(reader.ReadByte(), 1);
  reader.ReadBytes(out.data(), 2);
  EXPECT_EQ(out, (Bytes{2, 3}));
  reader.ReadAlignment(4);
  EXPECT_EQ(reader.BytesLeft(), 1U);
  EXPECT_EQ(reader.ReadByte(), 5);
  EXPECT_EQ(reader.BytesLeft(), 0U);
}

TEST(ByteBufferStreamReader, ReportsAByteReadPastTheEndAndGivesZero) {
  const Bytes bytes = {7};
  ByteBufferStreamReader reader(bytes.data(), bytes.size());
  const StderrCapture capture;
  EXPECT_EQ(reader.ReadByte(), 7);
  EXPECT_EQ(capture.GetText(), "");
  EXPECT_EQ(reader.ReadByte(), 0);
  EXPECT_EQ(capture.GetText(), kInvalidRead);
}

TEST(ByteBufferStreamReader, CopiesNothingAndStaysWhereItIsWhenABlockIsTooShort) {
  const Bytes bytes = {7, 8};
  ByteBufferStreamReader reader(bytes.data(), bytes.size());
  Bytes out = {1, 2, 3};
  const StderrCapture capture;
  reader.ReadBytes(out.data(), 3);
  EXPECT_EQ(capture.GetText(), kInvalidRead);
  EXPECT_EQ(out, (Bytes{1, 2, 3}));
  EXPECT_EQ(reader.ReadByte(), 7);
}

TEST(ByteBufferStreamReader, RefusesALengthThatWouldWrapAround) {
  const Bytes bytes = {7, 8};
  ByteBufferStreamReader reader(bytes.data(), bytes.size());
  std::uint8_t out = 1;
  reader.ReadByte();
  // Volatile, or an optimising compiler warns of the copy that is never made.
  const volatile std::size_t length = SIZE_MAX;
  const StderrCapture capture;
  reader.ReadBytes(&out, length);
  EXPECT_EQ(capture.GetText(), kInvalidRead);
  EXPECT_EQ(out, 1);
}

TEST(ByteBufferStreamReader, MovesPastTheEndSilentlyAndReportsTheNextRead) {
  const Bytes bytes = {7, 8};
  ByteBufferStreamReader reader(bytes.data(), bytes.size());
  const StderrCapture capture;
  reader.ReadByte();
  reader.ReadAlignment(8);
  EXPECT_EQ(capture.GetText(), "");
  EXPECT_EQ(reader.BytesLeft(), 0U);
  EXPECT_EQ(reader.ReadByte(), 0);
  reader.ReadBytes(nullptr, 0);
  EXPECT_EQ(capture.GetText(), std::string(kInvalidRead) + kInvalidRead);
}

TEST(ByteBufferStreamReader, ReadsNoBytesAtTheEndWithoutComplaint) {
  ByteBufferStreamReader reader(nullptr, 5);
  const StderrCapture capture;
  EXPECT_EQ(reader.BytesLeft(), 0U);
  reader.ReadBytes(nullptr, 0);
  reader.ReadAlignment(0);
  reader.ReadAlignment(8);
  EXPECT_EQ(capture.GetText(), "");
}

TEST(ByteBufferStreamReader, GivesBytesWhereTheyLie) {
  const Bytes bytes = FromHex("01 02 03");
  ByteBufferStreamReader reader(bytes.data(), bytes.size());
  EXPECT_EQ(reader.TakeBytes(2), bytes.data());
  const StderrCapture capture;
  EXPECT_EQ(reader.TakeBytes(2), nullptr);
  EXPECT_EQ(capture.GetText(), kInvalidRead);
  EXPECT_EQ(reader.TakeBytes(1), bytes.data() + 2);
  EXPECT_EQ(reader.TakeBytes(0), bytes.data() + 3);
}

TEST(NestingScope, StopsPastTheDeepestLevelAndComesBack) {
  quarn::Buffer buffer;
  ByteBufferStreamWriter writer(&buffer);
  for (int round = 0; round < 2; ++round) {
    std::vector<std::unique_ptr<NestingScope>> scopes;
    for (std::size_t i = 0; i < kMaxNesting; ++i) {
      scopes.push_back(std::make_unique<NestingScope>(&writer));
    }
    EXPECT_THROW(NestingScope{&writer}, std::length_error);
    EXPECT_THROW(NestingScope{&writer}, std::length_error);
  }
}

}  // namespace
}  // namespace cw

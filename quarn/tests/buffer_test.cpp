#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quarn/buffer.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/capture.h"
#include "support/log_line.h"
#include "support/seed.h"

namespace {

using quarn::Buffer;
using tarv::test::IsLogLine;
using tarv::test::NewSeed;
using tarv::test::StdoutOf;
using tarv::test::TestSeed;

using Bytes = std::vector<std::uint8_t>;

Bytes BytesOf(const Buffer& buffer) {
  return buffer.GetSize() == 0 ? Bytes()
                               : Bytes(buffer.GetData(), buffer.GetData() + buffer.GetSize());
}

TEST(Buffer, BeginsEmpty) {
  const Buffer buffer;
  EXPECT_EQ(buffer.GetSize(), 0U);
  EXPECT_EQ(buffer.GetData(), nullptr);
}

TEST(Buffer, CopiesOrTakesAVector) {
  Bytes bytes{1, 2, 3};
  const Buffer copied(bytes);
  EXPECT_EQ(BytesOf(copied), (Bytes{1, 2, 3}));
  const std::uint8_t* const address = bytes.data();
  const Buffer taken(std::move(bytes));
  EXPECT_EQ(taken.GetData(), address);
  EXPECT_EQ(taken, copied);
}

TEST(Buffer, CopiesBytesFromAPointer) {
  const std::array<std::uint8_t, 3> bytes{1, 2, 3};
  EXPECT_EQ(BytesOf(Buffer(bytes.data(), 2)), (Bytes{1, 2}));
}

TEST(Buffer, IsEmptyForANullPointerOrNoBytes) {
  const std::uint8_t byte = 1;
  EXPECT_EQ(Buffer(nullptr, 5).GetSize(), 0U);
  EXPECT_EQ(Buffer(&byte, 0).GetSize(), 0U);
}

TEST(Buffer, CopiesAreIndependent) {
  Buffer original(Bytes{1, 2});
  Buffer copy(original);
  copy.WriteByte(3);
  EXPECT_EQ(BytesOf(original), (Bytes{1, 2}));
  original = copy;
  EXPECT_EQ(original, copy);
}

TEST(Buffer, IsEmptyOnceMovedFrom) {
  Buffer first(Bytes{1, 2});
  Buffer second(std::move(first));
  EXPECT_EQ(first.GetSize(), 0U);  // NOLINT(bugprone-use-after-move): the class promises it
  EXPECT_EQ(first.GetData(), nullptr);
  Buffer third(Bytes{9});
  third = std::move(second);
  EXPECT_EQ(second.GetSize(), 0U);  // NOLINT(bugprone-use-after-move): the class promises it
  EXPECT_EQ(BytesOf(third), (Bytes{1, 2}));
}

TEST(Buffer, SurvivesAMoveOntoItself) {
  Buffer buffer(Bytes{1, 2});
  Buffer& same = buffer;
  buffer = std::move(same);
  EXPECT_EQ(BytesOf(buffer), (Bytes{1, 2}));
}

TEST(Buffer, ExtractsItsBytesAndIsEmptyAfterwards) {
  Buffer buffer(Bytes{1, 2, 3});
  const std::uint8_t* const address = buffer.GetData();
  const std::unique_ptr<Bytes> bytes = buffer.Extract();
  ASSERT_NE(bytes, nullptr);
  EXPECT_EQ(*bytes, (Bytes{1, 2, 3}));
  EXPECT_EQ(bytes->data(), address);
  EXPECT_EQ(buffer.GetSize(), 0U);
  EXPECT_EQ(buffer.GetData(), nullptr);
}

TEST(Buffer, ExtractsAnEmptyPointerWhenEmpty) {
  Buffer buffer;
  EXPECT_EQ(buffer.Extract(), nullptr);
  buffer.Reserve(100);
  EXPECT_EQ(buffer.Extract(), nullptr);
}

TEST(Buffer, AppendsBytes) {
  Buffer buffer;
  buffer.WriteByte(7);
  const std::array<std::uint8_t, 3> more{8, 9, 10};
  buffer.WriteBytes(more.data(), more.size());
  EXPECT_EQ(BytesOf(buffer), (Bytes{7, 8, 9, 10}));
}

TEST(Buffer, AppendsNothingFromANullPointerOrOfNoLength) {
  Buffer buffer(Bytes{1});
  const std::uint8_t byte = 2;
  buffer.WriteBytes(nullptr, 5);
  buffer.WriteBytes(&byte, 0);
  EXPECT_EQ(BytesOf(buffer), (Bytes{1}));
}

TEST(Buffer, PadsWithZerosUpToTheAlignment) {
  Buffer buffer(Bytes{1, 2, 3, 4, 5});
  buffer.WriteAlignment(8);
  EXPECT_EQ(BytesOf(buffer), (Bytes{1, 2, 3, 4, 5, 0, 0, 0}));
  buffer.WriteAlignment(8);
  EXPECT_EQ(buffer.GetSize(), 8U);
}

TEST(Buffer, WritesNothingForAnAlignmentOfZero) {
  Buffer buffer(Bytes{1, 2, 3});
  buffer.WriteAlignment(0);
  EXPECT_EQ(BytesOf(buffer), (Bytes{1, 2, 3}));
}

TEST(Buffer, PadsToEveryAlignmentFromEverySize) {
  for (std::size_t size = 0; size < 40; ++size) {
    for (unsigned alignment = 1; alignment <= 255; ++alignment) {
      Buffer buffer(Bytes(size, 1));
      buffer.WriteAlignment(static_cast<std::uint8_t>(alignment));
      ASSERT_EQ(buffer.GetSize(), (size + alignment - 1) / alignment * alignment);
      for (std::size_t i = size; i < buffer.GetSize(); ++i) {
        ASSERT_EQ(buffer.GetData()[i], 0);
      }
    }
  }
}

TEST(Buffer, GivesNoDataWhenEmptyAlsoAfterReserve) {
  Buffer buffer;
  buffer.Reserve(100);
  EXPECT_EQ(buffer.GetData(), nullptr);
  EXPECT_EQ(std::as_const(buffer).GetData(), nullptr);
}

TEST(Buffer, ReservesRoomOnce) {
  Buffer buffer;
  buffer.Reserve(100);
  buffer.WriteByte(1);
  const std::uint8_t* const address = buffer.GetData();
  for (int i = 0; i < 99; ++i) {
    buffer.WriteByte(2);
  }
  EXPECT_EQ(buffer.GetData(), address);
}

TEST(Buffer, ComparesByLengthAndBytes) {
  const Buffer buffer(Bytes{1, 2});
  const Buffer& same = buffer;
  EXPECT_TRUE(buffer == same);
  EXPECT_FALSE(buffer != same);
  EXPECT_TRUE(buffer == Buffer(Bytes{1, 2}));
  EXPECT_TRUE(buffer != Buffer(Bytes{1, 3}));
  EXPECT_TRUE(buffer != Buffer(Bytes{1, 2, 0}));
  EXPECT_TRUE(buffer != Buffer());
  EXPECT_TRUE(Buffer() == Buffer());
}

// A view of the full size with bytes that nobody wrote.
QuarnBufferView UntouchedView() {
  QuarnBufferView view;
  std::memset(&view, 0xEE, sizeof(view));
  return view;
}

std::array<unsigned char, sizeof(QuarnBufferView)> RawBytes(const QuarnBufferView& view) {
  std::array<unsigned char, sizeof(view)> bytes{};
  std::memcpy(bytes.data(), &view, sizeof(view));
  return bytes;
}

TEST(BufferToCAPI, DescribesItsOwnBytes) {
  const Buffer buffer(Bytes{1, 2, 3});
  QuarnBufferView view = UntouchedView();
  EXPECT_EQ(buffer.ToCAPI(&view, sizeof(view)), QUARN_RESULT_SUCCESS);
  EXPECT_EQ(view.struct_size, 24U);
  EXPECT_EQ(view.data, buffer.GetData());
  EXPECT_EQ(view.size, 3U);
}

TEST(BufferToCAPI, DescribesAnEmptyBufferWithNoData) {
  QuarnBufferView view = UntouchedView();
  EXPECT_EQ(Buffer().ToCAPI(&view, sizeof(view)), QUARN_RESULT_SUCCESS);
  EXPECT_EQ(view.data, nullptr);
  EXPECT_EQ(view.size, 0U);
}

TEST(BufferToCAPI, FillsOnlyWhatFitsIntoEveryViewSize) {
  const Buffer buffer(Bytes(5, 1));
  for (std::size_t size = 8; size <= sizeof(QuarnBufferView); ++size) {
    QuarnBufferView expected = UntouchedView();
    std::memset(&expected, 0, size);
    expected.struct_size = size;
    if (size > 15) {
      expected.data = buffer.GetData();
    }
    if (size > 23) {
      expected.size = 5;
    }
    QuarnBufferView view = UntouchedView();
    EXPECT_EQ(buffer.ToCAPI(&view, size), QUARN_RESULT_SUCCESS);
    EXPECT_EQ(RawBytes(view), RawBytes(expected)) << "view size " << size;
  }
}

TEST(BufferToCAPI, ZeroesTheTailOfALargerView) {
  struct LargerView {
    QuarnBufferView view;
    std::array<unsigned char, 16> later_fields;
    unsigned char beyond;
  };
  const Buffer buffer(Bytes{1, 2, 3});
  LargerView larger;
  std::memset(&larger, 0xEE, sizeof(larger));
  constexpr std::size_t kSize = offsetof(LargerView, beyond);
  EXPECT_EQ(buffer.ToCAPI(&larger.view, kSize), QUARN_RESULT_SUCCESS);
  EXPECT_EQ(larger.view.struct_size, kSize);
  EXPECT_EQ(larger.view.data, buffer.GetData());
  EXPECT_EQ(larger.view.size, 3U);
  EXPECT_THAT(larger.later_fields, testing::Each(0));
  EXPECT_EQ(larger.beyond, 0xEE);
}

TEST(BufferToCAPI, ReportsANullView) {
  QuarnResult result = QUARN_RESULT_SUCCESS;
  const std::string log = StdoutOf([&result] { result = Buffer().ToCAPI(nullptr, 24); });
  EXPECT_EQ(result, QUARN_RESULT_INVALID_ARGUMENT);
  EXPECT_THAT(log, IsLogLine("error", "Structure pointer is null"));
}

TEST(BufferFromCAPI, CopiesTheBytesOfAView) {
  const Buffer original(Bytes{1, 2, 3});
  QuarnBufferView view{};
  original.ToCAPI(&view, sizeof(view));
  const Buffer copy = Buffer::FromCAPI(&view);
  EXPECT_EQ(copy, original);
  EXPECT_NE(copy.GetData(), original.GetData());
}

TEST(BufferFromCAPI, IsEmptyForANullView) {
  EXPECT_EQ(StdoutOf([] { EXPECT_EQ(Buffer::FromCAPI(nullptr), Buffer()); }), "");
}

TEST(BufferFromCAPI, IsEmptyUnlessTheStatedSizeCoversDataAndSize) {
  const std::array<std::uint8_t, 3> bytes{1, 2, 3};
  for (std::uint64_t size = 0; size <= 40; ++size) {
    QuarnBufferView view{size, bytes.data(), bytes.size()};
    EXPECT_EQ(Buffer::FromCAPI(&view).GetSize(), size > 23 ? 3U : 0U) << "stated size " << size;
  }
}

TEST(BufferFromCAPI, IsEmptyForAViewWithoutData) {
  QuarnBufferView view{sizeof(QuarnBufferView), nullptr, 10};
  EXPECT_EQ(Buffer::FromCAPI(&view), Buffer());
}

TEST(BufferBase64, EncodesTheThreeLengthsOfATail) {
  EXPECT_EQ(Buffer().ToBase64(), "");
  EXPECT_EQ(Buffer(Bytes{0x41}).ToBase64(), "QQ==");
  EXPECT_EQ(Buffer(Bytes{0x41, 0x42}).ToBase64(), "QUI=");
  EXPECT_EQ(Buffer(Bytes{0x41, 0x42, 0x43}).ToBase64(), "QUJD");
}

TEST(BufferBase64, UsesTheStandardAlphabetInOrder) {
  Buffer buffer;
  for (unsigned i = 0; i < 64; i += 4) {
    buffer.WriteByte(static_cast<std::uint8_t>(i << 2 | (i + 1) >> 4));
    buffer.WriteByte(static_cast<std::uint8_t>((i + 1) << 4 | (i + 2) >> 2));
    buffer.WriteByte(static_cast<std::uint8_t>((i + 2) << 6 | (i + 3)));
  }
  EXPECT_EQ(buffer.ToBase64(), "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
}

TEST(BufferBase64, DecodesCanonicalTexts) {
  EXPECT_EQ(BytesOf(Buffer::FromBase64("QQ==")), (Bytes{0x41}));
  EXPECT_EQ(BytesOf(Buffer::FromBase64("QUI=")), (Bytes{0x41, 0x42}));
  EXPECT_EQ(BytesOf(Buffer::FromBase64("QUJD")), (Bytes{0x41, 0x42, 0x43}));
  EXPECT_EQ(BytesOf(Buffer::FromBase64("////")), (Bytes{0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(BytesOf(Buffer::FromBase64("QUJDQQ==")), (Bytes{0x41, 0x42, 0x43, 0x41}));
}

void ExpectRejected(const std::vector<std::string>& texts) {
  for (const auto& text : texts) {
    Buffer decoded(Bytes{1});
    const std::string log = StdoutOf([&] { decoded = Buffer::FromBase64(text); });
    EXPECT_EQ(decoded, Buffer()) << text;
    EXPECT_EQ(log, "") << text;
  }
}

TEST(BufferBase64, RejectsImpossibleLengthsWithoutALogLine) {
  ExpectRejected({"", "Q", "QQ", "QQQ", "QQ=", "QUJDQ", "QUJDQQ", "QUJDQQQ", "QUJDQQ="});
}

TEST(BufferBase64, RejectsLeftoverBitsWithoutALogLine) {
  ExpectRejected({"QR==", "QY==", "QUJ=", "QUK=", "QUL=", "QUJDQR=="});
}

TEST(BufferBase64, RejectsMisplacedPaddingWithoutALogLine) {
  ExpectRejected({"QQ=A", "Q===", "====", "=QQQ", "Q=QQ", "Q=Q=", "QQ==QQ==", "QUI=QUJD",
                  "QUJDQQ=A", "QUJD====", "QUJDQ===", "=UJDQUJD"});
}

TEST(BufferBase64, RejectsForeignCharactersWithoutALogLine) {
  ExpectRejected({"QQ-=", "QQ_=", "QU-D", "QU_D", "Q UJ", " QUJ", "QUJ ",
                  "QUJD\nQQ=", "QUJD\r\n==", std::string("QU\0D", 4), "QU\xFF\x80"});
}

TEST(BufferBase64, RoundTripsRandomBuffers) {
  const std::uint64_t seed = TestSeed(NewSeed());
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int i = 0; i < 500; ++i) {
    Bytes bytes(random() % 1000 + 1);
    for (auto& byte : bytes) {
      byte = static_cast<std::uint8_t>(random());
    }
    const Buffer buffer(bytes);
    ASSERT_EQ(Buffer::FromBase64(buffer.ToBase64()), buffer);
  }
}

}  // namespace

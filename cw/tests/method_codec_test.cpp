#include <cw/method_codec.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
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

const StandardMethodCodec& Codec() { return StandardMethodCodec::GetInstance(); }

MethodCall<> MakeCall(std::string name, EncodableValue arguments) {
  return MethodCall<>(std::move(name), std::make_unique<EncodableValue>(std::move(arguments)));
}

// Records what a reply came to.
class Recorder : public MethodResult<EncodableValue> {
 public:
  std::vector<std::string> calls;
  std::optional<EncodableValue> value;  // the result or the details

 protected:
  void SuccessInternal(const EncodableValue* result) override { Record("success", result); }
  void ErrorInternal(const std::string& code, const std::string& message,
                     const EncodableValue* details) override {
    Record("error " + code + "|" + message, details);
  }
  void NotImplementedInternal() override { Record("not implemented", nullptr); }

 private:
  void Record(const std::string& call, const EncodableValue* content) {
    calls.push_back(call);
    value = content == nullptr ? std::nullopt : std::optional(*content);
  }
};

bool Process(const std::string& hex, Recorder* recorder) {
  const Bytes bytes = FromHex(hex);
  return Codec().DecodeAndProcessResponseEnvelope(bytes.data(), bytes.size(), recorder);
}

TEST(StandardMethodCodec, WritesACallWithoutArgumentsWithANull) {
  EXPECT_EQ(ToBytes(Codec().EncodeMethodCall(MethodCall<>("ping", nullptr))),
            FromHex("07 04 70 69 6E 67 00"));
}

TEST(StandardMethodCodec, WritesACallWithItsArguments) {
  EXPECT_EQ(ToBytes(Codec().EncodeMethodCall(MakeCall("ping", true))),
            FromHex("07 04 70 69 6E 67 01"));
}

TEST(StandardMethodCodec, ReadsACall) {
  const Bytes bytes = FromHex("07 04 70 69 6E 67 03 05 00 00 00");
  const auto call = Codec().DecodeMethodCall(bytes.data(), bytes.size());
  ASSERT_NE(call, nullptr);
  EXPECT_EQ(call->GetMethodName(), "ping");
  ASSERT_NE(call->GetArguments(), nullptr);
  EXPECT_EQ(*call->GetArguments(), 5);
}

TEST(StandardMethodCodec, KeepsNullArgumentsAsANullValue) {
  const auto call = Codec().DecodeMethodCall(quarn::Buffer(FromHex("07 01 61 00")));
  ASSERT_NE(call, nullptr);
  ASSERT_NE(call->GetArguments(), nullptr);
  EXPECT_TRUE(call->GetArguments()->IsNull());
}

TEST(StandardMethodCodec, ReportsACallWhoseNameIsNoString) {
  const StderrCapture capture;
  EXPECT_EQ(Codec().DecodeMethodCall(quarn::Buffer(FromHex("03 01 00 00 00 00"))), nullptr);
  EXPECT_EQ(capture.GetText(), "Invalid method call; method name is not a string.\n");
}

TEST(StandardMethodCodec, GivesNoCallForNoBytes) {
  const StderrCapture capture;
  EXPECT_EQ(Codec().DecodeMethodCall(nullptr, 0), nullptr);
  EXPECT_EQ(capture.GetText(),
            std::string(kInvalidRead) + "Invalid method call; method name is not a string.\n");
}

TEST(StandardMethodCodec, ThrowsForACallBeyondTheBounds) {
  EXPECT_THROW(Codec().DecodeMethodCall(quarn::Buffer(FromHex("07 FF FF FF FF FF"))),
               std::length_error);
}

TEST(StandardMethodCodec, WritesSuccessEnvelopes) {
  const EncodableValue result("ok");
  EXPECT_EQ(ToBytes(Codec().EncodeSuccessEnvelope()), FromHex("00 00"));
  EXPECT_EQ(ToBytes(Codec().EncodeSuccessEnvelope(&result)), FromHex("00 07 02 6F 6B"));
}

TEST(StandardMethodCodec, WritesErrorEnvelopes) {
  const EncodableValue details(true);
  EXPECT_EQ(ToBytes(Codec().EncodeErrorEnvelope("E")), FromHex("01 07 01 45 00 00"));
  EXPECT_EQ(ToBytes(Codec().EncodeErrorEnvelope("E", "m", &details)),
            FromHex("01 07 01 45 07 01 6D 01"));
}

TEST(StandardMethodCodec, WritesANullMessageInFrontOfDetails) {
  const EncodableValue details(7);
  EXPECT_EQ(ToBytes(Codec().EncodeErrorEnvelope("E", "", &details)),
            FromHex("01 07 01 45 00 03 07 00 00 00"));
}

TEST(StandardMethodCodec, WritesNullDetailsBehindAMessage) {
  EXPECT_EQ(ToBytes(Codec().EncodeErrorEnvelope("E", "m")), FromHex("01 07 01 45 07 01 6D 00"));
}

// Writes texts under a type byte of its own.
class TextSerializer : public StandardCodecSerializer {
 public:
  void WriteValue(const EncodableValue& value, ByteStreamWriter* stream) const override {
    const std::string* text = value.AsString();
    if (text == nullptr) {
      StandardCodecSerializer::WriteValue(value, stream);
      return;
    }
    stream->WriteByte(128);
    WriteString(*text, stream);
  }

  EncodableValue ReadValueOfType(std::uint8_t type, ByteStreamReader* stream) const override {
    return type == 128 ? ReadValue(stream) : StandardCodecSerializer::ReadValueOfType(type, stream);
  }
};

TEST(StandardMethodCodec, WritesNamesAndTextsThroughADerivedSerializer) {
  static const TextSerializer serializer;
  const StandardMethodCodec& codec = StandardMethodCodec::GetInstance(&serializer);
  const EncodableValue text("x");
  EXPECT_EQ(ToBytes(codec.EncodeMethodCall(MakeCall("n", text))),
            FromHex("80 07 01 6E 80 07 01 78"));
  EXPECT_EQ(ToBytes(codec.EncodeSuccessEnvelope(&text)), FromHex("00 80 07 01 78"));
  EXPECT_EQ(ToBytes(codec.EncodeErrorEnvelope("E", "m", &text)),
            FromHex("01 80 07 01 45 80 07 01 6D 80 07 01 78"));
  const auto call = codec.DecodeMethodCall(codec.EncodeMethodCall(MakeCall("n", text)));
  ASSERT_NE(call, nullptr);
  EXPECT_EQ(call->GetMethodName(), "n");
  EXPECT_EQ(*call->GetArguments(), text);
}

TEST(StandardMethodCodec, PadsEnvelopesFromTheStartOfTheMessage) {
  const EncodableValue result(1.0);
  EXPECT_EQ(ToBytes(Codec().EncodeSuccessEnvelope(&result)), FromHex("00 06 00*6 00*6 F0 3F"));
}

TEST(StandardMethodCodec, ReportsASuccessWithItsValue) {
  Recorder recorder;
  EXPECT_TRUE(Process("00 07 02 6F 6B", &recorder));
  EXPECT_THAT(recorder.calls, testing::ElementsAre("success"));
  EXPECT_EQ(recorder.value, EncodableValue("ok"));
}

TEST(StandardMethodCodec, ReportsANullSuccessWithoutAValue) {
  Recorder recorder;
  EXPECT_TRUE(Process("00 00", &recorder));
  EXPECT_THAT(recorder.calls, testing::ElementsAre("success"));
  EXPECT_EQ(recorder.value, std::nullopt);
}

TEST(StandardMethodCodec, ReportsAnErrorWithItsDetails) {
  Recorder recorder;
  EXPECT_TRUE(Process("01 07 01 45 07 01 6D 03 07 00 00 00", &recorder));
  EXPECT_THAT(recorder.calls, testing::ElementsAre("error E|m"));
  EXPECT_EQ(recorder.value, EncodableValue(7));
}

TEST(StandardMethodCodec, ReportsAnErrorWithoutMessageAndDetails) {
  Recorder recorder;
  EXPECT_TRUE(Process("01 07 01 45 00 00", &recorder));
  EXPECT_THAT(recorder.calls, testing::ElementsAre("error E|"));
  EXPECT_EQ(recorder.value, std::nullopt);
}

TEST(StandardMethodCodec, ReportsAnErrorWithDetailsAndWithoutMessage) {
  Recorder recorder;
  EXPECT_TRUE(Process("01 07 01 45 00 03 07 00 00 00", &recorder));
  EXPECT_THAT(recorder.calls, testing::ElementsAre("error E|"));
  EXPECT_EQ(recorder.value, EncodableValue(7));
}

TEST(StandardMethodCodec, ReportsAnErrorWithAMessageAndWithoutDetails) {
  Recorder recorder;
  EXPECT_TRUE(Process("01 07 01 45 07 01 6D 00", &recorder));
  EXPECT_THAT(recorder.calls, testing::ElementsAre("error E|m"));
  EXPECT_EQ(recorder.value, std::nullopt);
}

TEST(StandardMethodCodec, CallsNothingForAnotherFirstByte) {
  Recorder recorder;
  EXPECT_FALSE(Process("02 00", &recorder));
  EXPECT_FALSE(Process("FF", &recorder));
  // Of another kind, though all that an error has is there.
  EXPECT_FALSE(Process("02 07 01 45 07 01 6D 03 07 00 00 00", &recorder));
  EXPECT_FALSE(Process("02 07 01 45 00 00", &recorder));
  EXPECT_TRUE(recorder.calls.empty());
}

TEST(StandardMethodCodec, ReadsNothingBehindAnotherFirstByte) {
  Recorder recorder;
  const StderrCapture capture;
  EXPECT_FALSE(Process("FF", &recorder));
  EXPECT_EQ(capture.GetText(), "");
}

TEST(StandardMethodCodec, CallsNothingForAnErrorWhoseTextsAreNoTexts) {
  Recorder recorder;
  EXPECT_FALSE(Process("01 03 01 00 00 00 00 00", &recorder));
  EXPECT_FALSE(Process("01 07 01 45 01 00", &recorder));
  EXPECT_TRUE(recorder.calls.empty());
}

TEST(StandardMethodCodec, CallsNothingForAnErrorThatIsCutOff) {
  Recorder recorder;
  const StderrCapture capture;
  EXPECT_FALSE(Process("01", &recorder));
  EXPECT_TRUE(recorder.calls.empty());
  EXPECT_EQ(capture.GetText(), std::string(kInvalidRead) + kInvalidRead + kInvalidRead);
}

TEST(StandardMethodCodec, TakesAnEmptyResponseForASuccessWithoutAValue) {
  Recorder recorder;
  const StderrCapture capture;
  EXPECT_TRUE(Codec().DecodeAndProcessResponseEnvelope(nullptr, 0, &recorder));
  EXPECT_THAT(recorder.calls, testing::ElementsAre("success"));
  EXPECT_EQ(recorder.value, std::nullopt);
  EXPECT_EQ(capture.GetText(), std::string(kInvalidRead) + kInvalidRead);
}

TEST(StandardMethodCodec, CallsNothingBeforeAResponseBeyondTheBoundsThrows) {
  Recorder recorder;
  EXPECT_THROW(Process("01 07 01 45 00 0C FF FF FF FF FF", &recorder), std::length_error);
  EXPECT_THROW(Process("00 0C FF FF FF FF FF", &recorder), std::length_error);
  EXPECT_TRUE(recorder.calls.empty());
}

TEST(StandardMethodCodec, IsSharedPerSerializer) {
  static const StandardCodecSerializer other;
  EXPECT_EQ(&Codec(), &StandardMethodCodec::GetInstance(&StandardCodecSerializer::GetInstance()));
  EXPECT_NE(&Codec(), &StandardMethodCodec::GetInstance(&other));
  EXPECT_EQ(&StandardMethodCodec::GetInstance(&other), &StandardMethodCodec::GetInstance(&other));
}

TEST(MethodResult, PassesEachOutcomeOn) {
  Recorder recorder;
  recorder.Success();
  recorder.Success(1);
  recorder.Error("c");
  recorder.Error("c", "m", 2);
  EXPECT_EQ(recorder.value, EncodableValue(2));
  recorder.NotImplemented();
  EXPECT_THAT(recorder.calls, testing::ElementsAre("success", "success", "error c|", "error c|m",
                                                   "not implemented"));
}

TEST(MethodResultFunctions, HandEachOutcomeToItsFunction) {
  std::vector<std::string> calls;
  MethodResultFunctions<> functions(
      [&calls](const EncodableValue* result) {
        calls.push_back(result == nullptr ? "none" : *result->AsString());
      },
      [&calls](const std::string& code, const std::string& message, const EncodableValue* details) {
        calls.push_back(code + message + (details == nullptr ? "" : *details->AsString()));
      },
      [&calls] { calls.emplace_back("not implemented"); });
  functions.Success();
  functions.Success("value");
  functions.Error("c", "m");
  functions.Error("c", "m", "d");
  functions.NotImplemented();
  EXPECT_THAT(calls, testing::ElementsAre("none", "value", "cm", "cmd", "not implemented"));
}

TEST(MethodResultFunctions, DropAnOutcomeWithoutAFunction) {
  MethodResultFunctions<> functions(nullptr, nullptr, nullptr);
  EXPECT_NO_THROW({
    functions.Success();
    functions.Error("c");
    functions.NotImplemented();
  });
}

}  // namespace
}  // namespace cw

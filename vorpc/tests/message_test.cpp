#include <cw/codec_limits.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vorpc/message.h>

#include <cstdint>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "recorder.h"
#include "support/capture.h"
#include "support/log_line.h"
#include "support/valueless.h"

namespace vorpc::test_support {
namespace {

using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;
using tarv::test::IsLogLine;
using tarv::test::StdoutOf;
using testing::HasSubstr;
using ID = Message::ID;
using Error = Message::Error;

Message Decode(EncodableMap map) {
  map.emplace("jsonrpc", "2.0");
  return Message::FromEncodable(EncodableValue(std::move(map)));
}

void ExpectParseError(const Message& message, const std::string& text) {
  EXPECT_EQ(message.GetType(), Message::Type::Error) << message;
  EXPECT_EQ(ErrorOf(message), Error(-32700, text));
}

template <class Printable>
std::string Print(const Printable& printable) {
  std::ostringstream stream;
  stream << printable;
  return stream.str();
}

// --- Identifiers ---

TEST(MessageId, IsTheSameWhetherMadeOfANumberOrOfItsText) {
  EXPECT_EQ(ID(5), ID("5"));
  EXPECT_NE(ID(5), ID("05"));
  EXPECT_EQ(ID(5).GetHash(), ID("5").GetHash());
  EXPECT_EQ(std::hash<ID>()(ID(5)), std::hash<std::string>()("5"));
}

TEST(MessageId, WritesNumbersInDecimal) {
  EXPECT_EQ(ID(-7).value, "-7");
  EXPECT_EQ(ID(0).value, "0");
  EXPECT_EQ(ID(INT64_MIN).value, "-9223372036854775808");
  EXPECT_EQ(ID(INT64_MAX).value, "9223372036854775807");
}

TEST(MessageId, EqualsTextByBytesAndNumbersByTheirDecimalText) {
  EXPECT_TRUE(ID("7") == 7);
  EXPECT_TRUE(ID("07") != 7);
  EXPECT_TRUE(ID("a") == "a");
  EXPECT_TRUE(ID("a") != "A");
  EXPECT_TRUE(ID("a") != 1);
  EXPECT_TRUE(ID("a") == std::string("a"));
}

TEST(MessageId, KeysHashMaps) {
  std::unordered_map<ID, int> map{{ID(1), 10}, {ID("x"), 20}};
  EXPECT_EQ(map.at(ID("1")), 10);
  EXPECT_EQ(map.at(ID("x")), 20);
}

TEST(MessageId, IsAlwaysAStringValueWhenEncoded) {
  EXPECT_EQ(ID(7).ToEncodable(), EncodableValue("7"));
  EXPECT_EQ(ID("x").ToEncodable(), EncodableValue("x"));
}

TEST(MessageId, IsDecodedFromStringsAndIntegers) {
  EXPECT_EQ(ID::FromEncodable("x"), ID("x"));
  EXPECT_EQ(ID::FromEncodable(std::int32_t{-3}), ID("-3"));
  EXPECT_EQ(ID::FromEncodable(INT64_MAX), ID(INT64_MAX));
}

TEST(MessageId, IsDecodedFromTheIdMemberOfAMapButNoDeeper) {
  EXPECT_EQ(ID::FromEncodable(EncodableMap{{"id", 4}}), ID(4));
  EXPECT_EQ(ID::FromEncodable(EncodableMap{{"id", EncodableMap{{"id", 4}}}}), std::nullopt);
  EXPECT_EQ(ID::FromEncodable(EncodableMap{{"x", 4}}), std::nullopt);
}

TEST(MessageId, PrintsItselfAsTheTextThatItIs) {
  EXPECT_EQ(Print(ID(7)), "\"7\"");
  EXPECT_EQ(Print(ID("a\nb")), "\"a\\nb\"");
}

TEST(MessageId, IsNotDecodedFromAnythingElse) {
  for (const EncodableValue& value :
       {EncodableValue(), EncodableValue(""), EncodableValue(1.0), EncodableValue(true),
        EncodableValue(EncodableList{1}), EncodableValue(std::vector<std::uint8_t>{1})}) {
    EXPECT_EQ(ID::FromEncodable(value), std::nullopt) << value;
  }
}

// --- Types and accessors ---

TEST(Message, NumbersItsTypesInTheirFixedOrder) {
  const auto number = [](const Message& message) { return static_cast<int>(message.GetType()); };
  EXPECT_EQ(number(Message()), 0);
  EXPECT_EQ(number(Message::CreateRequest(ID(1), "m", {})), 1);
  EXPECT_EQ(number(Message::CreateResponse(ID(1), {})), 2);
  EXPECT_EQ(number(Message::CreateError(ID(1), -1, "e")), 2);
  EXPECT_EQ(number(Message::CreateError(ID(1), Error(-1, "e"))), 2);
  EXPECT_EQ(number(Message::CreateNotification("m", {})), 3);
  EXPECT_EQ(number(Message::CreateError(-1, "e")), 4);
  EXPECT_EQ(number(Message::CreateError(Error(-1, "e"))), 4);
}

TEST(Message, IsEmptyByDefault) {
  const Message message;
  EXPECT_TRUE(message.IsEmpty());
  EXPECT_FALSE(message.IsError());
  EXPECT_EQ(message.GetRequest(), nullptr);
  EXPECT_EQ(message.GetResponse(), nullptr);
  EXPECT_EQ(message.GetNotification(), nullptr);
  EXPECT_EQ(message.GetError(), nullptr);
}

TEST(Message, GivesARequestItsParts) {
  const auto message = Message::CreateRequest(ID(7), "add", EncodableList{1, 2});
  ASSERT_NE(message.GetRequest(), nullptr);
  EXPECT_EQ(message.GetRequest()->id, ID(7));
  EXPECT_EQ(message.GetRequest()->method, "add");
  EXPECT_EQ(message.GetRequest()->params, EncodableValue(EncodableList{1, 2}));
  EXPECT_FALSE(message.IsEmpty());
  EXPECT_EQ(message.GetNotification(), nullptr);
}

TEST(Message, KnowsARequestByItsMethod) {
  const auto request = Message::CreateRequest(ID(1), "add", {});
  EXPECT_TRUE(request.IsRequest("add"));
  EXPECT_FALSE(request.IsRequest("ad"));
  EXPECT_FALSE(Message::CreateNotification("add", {}).IsRequest("add"));
}

TEST(Message, KnowsTheResponseToARequestByItsId) {
  const auto request = Message::CreateRequest(ID(1), "add", {});
  EXPECT_TRUE(request.IsResponseForThis(Message::CreateResponse(ID("1"), 3)));
  EXPECT_TRUE(request.IsResponseForThis(Message::CreateError(ID(1), -1, "e")));
  EXPECT_FALSE(request.IsResponseForThis(Message::CreateResponse(ID(2), 3)));
  EXPECT_FALSE(request.IsResponseForThis(request));
  EXPECT_FALSE(request.IsResponseForThis(Message::CreateError(-1, "e")));
  EXPECT_FALSE(Message().IsResponseForThis(Message::CreateResponse(ID(1), 3)));
}

TEST(Message, TellsAnErrorOfItsOwnFromAResponseThatCarriesOne) {
  EXPECT_TRUE(Message::CreateError(-1, "e").IsError());
  const auto response = Message::CreateError(ID(1), -1, "e", "data");
  EXPECT_FALSE(response.IsError());
  EXPECT_TRUE(response.GetResponse()->IsError());
  EXPECT_EQ(*response.GetResponse()->GetError(), Error(-1, "e", "data"));
  EXPECT_FALSE(response.GetResponse()->HasResult());
  EXPECT_EQ(response.GetResponse()->GetResult(), nullptr);
  EXPECT_EQ(response.GetResponse()->GetMapResult(), nullptr);
}

TEST(Message, GivesTheResultAsAMapOnlyWhenItIsOne) {
  const auto map = Message::CreateResponse(ID(1), EncodableMap{{"a", 1}});
  ASSERT_NE(map.GetResponse()->GetMapResult(), nullptr);
  EXPECT_EQ(map.GetResponse()->GetMapResult()->at("a"), EncodableValue(1));
  const auto number = Message::CreateResponse(ID(1), 5);
  EXPECT_TRUE(number.GetResponse()->HasResult());
  EXPECT_EQ(*number.GetResponse()->GetResult(), EncodableValue(5));
  EXPECT_EQ(number.GetResponse()->GetMapResult(), nullptr);
  EXPECT_EQ(number.GetResponse()->GetError(), nullptr);
}

TEST(Message, KeepsItsTypeWhenItIsMovedFrom) {
  Message request = Message::CreateRequest(ID(1), "add", {});
  const Message moved = std::move(request);
  EXPECT_EQ(request.GetType(), Message::Type::Request);  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(moved.IsRequest("add"));
}

TEST(Message, ComparesByTypeAndParts) {
  EXPECT_EQ(Message(), Message());
  EXPECT_EQ(Message::CreateRequest(ID(1), "m", 2), Message::CreateRequest(ID("1"), "m", 2));
  EXPECT_NE(Message::CreateRequest(ID(1), "m", 2), Message::CreateRequest(ID(1), "m", 3));
  EXPECT_NE(Message::CreateNotification("m", 2), Message::CreateNotification("n", 2));
  EXPECT_NE(Message::CreateResponse(ID(1), 2), Message::CreateError(ID(1), 2, ""));
  EXPECT_NE(Message::CreateError(1, "a"), Message::CreateError(1, "b"));
}

TEST(Message, HasPartsThatCompareByAllTheyHold) {
  const Message::Request request{ID(1), "m", 2};
  EXPECT_TRUE(request == (Message::Request{ID(1), "m", 2}));
  EXPECT_TRUE(request != (Message::Request{ID(2), "m", 2}));
  EXPECT_TRUE(request != (Message::Request{ID(1), "n", 2}));
  EXPECT_TRUE(request != (Message::Request{ID(1), "m", 3}));
  const Message::Notification notification{"m", 2};
  EXPECT_TRUE(notification == (Message::Notification{"m", 2}));
  EXPECT_TRUE(notification != (Message::Notification{"n", 2}));
  EXPECT_TRUE(notification != (Message::Notification{"m", 3}));
  const Message::Response response(ID(1), 2);
  EXPECT_TRUE(response == Message::Response(ID(1), 2));
  EXPECT_TRUE(response != Message::Response(ID(2), 2));
  EXPECT_TRUE(response != Message::Response(ID(1), 3));
  const Error error(1, "e", 2);
  EXPECT_TRUE(error == Error(1, "e", 2));
  EXPECT_TRUE(error != Error(2, "e", 2));
  EXPECT_TRUE(error != Error(1, "f", 2));
  EXPECT_TRUE(error != Error(1, "e", 3));
}

TEST(Message, IsMadeOfItsParts) {
  EXPECT_EQ(Message(Message::Request{ID(1), "m", 2}), Message::CreateRequest(ID(1), "m", 2));
  EXPECT_EQ(Message(Message::Content()), Message());
}

TEST(Message, PrintsItselfInOneLine) {
  EXPECT_EQ(Print(Message()), "empty message");
  EXPECT_EQ(Print(Message::CreateRequest(ID(7), "add", 1)), "request \"7\": \"add\"(1)");
  EXPECT_EQ(Print(Message::CreateResponse(ID(7), 2)), "response \"7\": 2");
  EXPECT_EQ(Print(Message::CreateError(ID(7), -1, "no", 3)), "response \"7\": error -1 \"no\" 3");
  EXPECT_EQ(Print(Message::CreateError(-1, "no")), "error -1 \"no\"");
  EXPECT_EQ(Print(Message::CreateNotification("tick", 1)), "notification \"tick\"(1)");
}

TEST(Message, StaysOnOneLineWhateverItsTextsAre) {
  EXPECT_EQ(Print(Message::CreateRequest(ID("a\nb"), "c\nd", "e\nf")),
            "request \"a\\nb\": \"c\\nd\"(\"e\\nf\")");
  EXPECT_EQ(Print(Message::CreateNotification("c\rd\x1B[2J", {})),
            "notification \"c\\x0dd\\x1b[2J\"(null)");
  EXPECT_EQ(Print(Message::CreateError(ID("a\n"), -1, "no\"\n", "x\n")),
            "response \"a\\n\": error -1 \"no\\\"\\n\" \"x\\n\"");
}

TEST(Message, ClipsEachOfItsTexts) {
  const std::string text(1000, 'a');
  const std::string clipped = "\"" + std::string(120, 'a') + "\"... (1000 bytes)";
  EXPECT_EQ(Print(Message::CreateRequest(ID(text), text, text)),
            "request " + clipped + ": " + clipped + "(" + clipped + ")");
  EXPECT_EQ(Print(Message::CreateError(-1, "e", text)), "error -1 \"e\" " + clipped);
}

TEST(MessageError, PrintsItsMessageWhole) {
  const std::string text(1000, 'a');
  EXPECT_EQ(Print(Error(-1, text)), "error -1 \"" + text + "\"");
  EXPECT_EQ(Print(Message::CreateError(ID(7), -1, text)),
            "response \"7\": error -1 \"" + text + "\"");
  EXPECT_EQ(Print(Error(-1, "a \"b\" \\ c\n\x1B[2J\"")),
            "error -1 \"a \\\"b\\\" \\\\ c\\n\\x1b[2J\\\"\"");
}

TEST(Message, PrintsItselfWhateverTheNumberFormatOfTheStreamIs) {
  std::ostringstream stream;
  stream << std::hex << std::showpos << Message::CreateError(26, "e", 26);
  EXPECT_EQ(stream.str(), "error 26 \"e\" 26");
}

// --- Encoding ---

TEST(MessageEncoding, WritesTheIdOfARequestAsText) {
  EXPECT_EQ(Message::CreateRequest(ID(7), "add", 1).ToEncodable(),
            EncodableValue(
                EncodableMap{{"jsonrpc", "2.0"}, {"id", "7"}, {"method", "add"}, {"params", 1}}));
}

TEST(MessageEncoding, GivesBackAnIdThatEqualsTheNumberAndItsText) {
  const auto message = Message::FromEncodable(Message::CreateRequest(ID(7), "m", {}).ToEncodable());
  ASSERT_NE(message.GetRequest(), nullptr);
  EXPECT_EQ(message.GetRequest()->id, ID(7));
  EXPECT_EQ(message.GetRequest()->id, ID("7"));
}

TEST(MessageEncoding, LeavesNullParamsOfARequestOut) {
  EXPECT_EQ(Message::CreateRequest(ID(7), "m", {}).ToEncodable(),
            EncodableValue(EncodableMap{{"jsonrpc", "2.0"}, {"id", "7"}, {"method", "m"}}));
}

TEST(MessageEncoding, LeavesNullParamsOfANotificationOutButKeepsAnEmptyList) {
  EXPECT_EQ(Message::CreateNotification("m", {}).ToEncodable(),
            EncodableValue(EncodableMap{{"jsonrpc", "2.0"}, {"method", "m"}}));
  EXPECT_EQ(Message::CreateNotification("m", EncodableList{}).ToEncodable(),
            EncodableValue(
                EncodableMap{{"jsonrpc", "2.0"}, {"method", "m"}, {"params", EncodableList{}}}));
}

TEST(MessageEncoding, KeepsANullResult) {
  const EncodableValue value = Message::CreateResponse(ID("a"), {}).ToEncodable();
  EXPECT_EQ(value, EncodableValue(EncodableMap{{"jsonrpc", "2.0"}, {"id", "a"}, {"result", {}}}));
  const auto message = Message::FromEncodable(value);
  ASSERT_NE(message.GetResponse(), nullptr);
  EXPECT_TRUE(message.GetResponse()->HasResult());
}

TEST(MessageEncoding, WritesTheErrorOfAResponse) {
  EXPECT_EQ(Message::CreateError(ID("a"), -5, "no", 1.5).ToEncodable(),
            EncodableValue(EncodableMap{
                {"jsonrpc", "2.0"},
                {"id", "a"},
                {"error", EncodableMap{{"code", -5}, {"message", "no"}, {"data", 1.5}}}}));
}

TEST(MessageEncoding, WritesNoIdForAnErrorOfItsOwnAndNoNullData) {
  EXPECT_EQ(Message::CreateError(-5, "no").ToEncodable(),
            EncodableValue(EncodableMap{{"jsonrpc", "2.0"},
                                        {"error", EncodableMap{{"code", -5}, {"message", "no"}}}}));
}

TEST(MessageEncoding, OfAnEmptyMessageIsNullAndLogsInvalidJsonRpcMessage) {
  EncodableValue value(1);
  EXPECT_THAT(StdoutOf([&value] { value = Message().ToEncodable(); }),
              IsLogLine("error", "Invalid Json-RPC message"));
  EXPECT_TRUE(value.IsNull());
}

TEST(MessageEncoding, OfAResponseWithoutOutcomeIsNullAndLogsInvalidRpcMessage) {
  const Message message = ResponseWithoutOutcome(ID(1));
  EXPECT_FALSE(message.GetResponse()->HasResult());
  EXPECT_FALSE(message.GetResponse()->IsError());
  EncodableValue value(1);
  EXPECT_THAT(StdoutOf([&] { value = message.ToEncodable(); }),
              IsLogLine("error", "Invalid RPC message"));
  EXPECT_TRUE(value.IsNull());
  std::string text;
  EXPECT_THAT(StdoutOf([&] { text = message.ToBase64(); }),
              IsLogLine("error", "Invalid RPC message"));
  EXPECT_EQ(text, "AA==");
  EXPECT_EQ(Print(message), "response \"1\": no outcome");
}

// --- Decoding, in the order of the checks ---

TEST(MessageDecoding, OfWhatIsNoMapIsEmplyOrInvalid) {
  for (const EncodableValue& value : {EncodableValue(), EncodableValue("2.0"),
                                      EncodableValue(EncodableList{}), EncodableValue(7)}) {
    ExpectParseError(Message::FromEncodable(value), "Emply or invalid RPC message");
  }
}

TEST(MessageDecoding, OfAnyVersionButTheTextTwoDotZeroIsEmplyOrInvalid) {
  for (const EncodableValue& version :
       {EncodableValue("2.0 "), EncodableValue("1.0"), EncodableValue(""), EncodableValue(2),
        EncodableValue(2.0), EncodableValue()}) {
    ExpectParseError(Message::FromEncodable(EncodableMap{
                         {"jsonrpc", version}, {"id", "1"}, {"method", "m"}, {"result", 1}}),
                     "Emply or invalid RPC message");
  }
  ExpectParseError(Message::FromEncodable(EncodableMap{{"id", "1"}, {"method", "m"}}),
                   "Emply or invalid RPC message");
}

TEST(MessageDecoding, OfARequestWithAnEmptyMethodIsEmptyAndLogs) {
  Message message = Message::CreateError(1, "");
  EXPECT_THAT(StdoutOf([&] {
                message = Decode({{"id", 1}, {"result", 2}, {"method", ""}});
              }),
              IsLogLine("error", "Method name is empty in RPC request"));
  EXPECT_TRUE(message.IsEmpty());
}

TEST(MessageDecoding, OfARequestWhoseMethodIsNoStringIsEmptyEvenWithABadId) {
  Message message = Message::CreateError(1, "");
  EXPECT_THAT(StdoutOf([&] {
                message = Decode({{"id", ""}, {"method", 5}});
              }),
              IsLogLine("error", "Method name is empty in RPC request"));
  EXPECT_TRUE(message.IsEmpty());
}

TEST(MessageDecoding, OfANotificationWithAnEmptyMethodIsEmptyAndLogs) {
  Message message = Message::CreateError(1, "");
  EXPECT_THAT(StdoutOf([&] {
                message = Decode({{"method", ""}});
              }),
              IsLogLine("error", "Method name is empty in RPC notification"));
  EXPECT_TRUE(message.IsEmpty());
}

TEST(MessageDecoding, PrefersTheMethodToTheErrorAndTheResult) {
  const auto message = Decode({{"method", "m"}, {"error", 1}, {"result", 2}, {"id", 3}});
  EXPECT_EQ(message, Message::CreateRequest(ID(3), "m", {}));
}

TEST(MessageDecoding, RefusesABadIdOfARequest) {
  for (const EncodableValue& id :
       {EncodableValue(""), EncodableValue(1.5), EncodableValue(), EncodableValue(EncodableList{1}),
        EncodableValue(EncodableMap{{"x", 1}}), EncodableValue(EncodableMap{{"id", ""}})}) {
    ExpectParseError(Decode({{"method", "m"}, {"id", id}}),
                     "Invalid id value in RPC request object");
  }
}

TEST(MessageDecoding, TakesAnIntegerOrTheIdMemberOfAMapAsTheIdOfARequest) {
  EXPECT_EQ(Decode({{"method", "m"}, {"id", INT64_MIN}}),
            Message::CreateRequest(ID(INT64_MIN), "m", {}));
  EXPECT_EQ(Decode({{"method", "m"}, {"id", EncodableMap{{"id", "x"}}}}),
            Message::CreateRequest(ID("x"), "m", {}));
}

TEST(MessageDecoding, TakesAMessageWithAMethodAndNoIdForANotification) {
  EXPECT_EQ(Decode({{"method", "m"}, {"params", 4}}), Message::CreateNotification("m", 4));
  EXPECT_EQ(Decode({{"method", "m"}}), Message::CreateNotification("m", {}));
}

TEST(MessageDecoding, TurnsABrokenErrorIntoOneOfItsOwnThatSaysWhatIsWrong) {
  ExpectParseError(
      Decode({{"error", 5}, {"id", 1}, {"result", 2}}),
      "The Response Object MUST contain the error member with a value that is a Object");
}

TEST(MessageDecoding, ReportsABrokenErrorBeforeABadId) {
  ExpectParseError(Decode({{"error", EncodableMap{{"message", "e"}}}, {"id", ""}}),
                   "The Error object does not have a required code field.");
}

TEST(MessageDecoding, TakesAnErrorWithoutIdForOneOfItsOwn) {
  EXPECT_EQ(Decode({{"error", EncodableMap{{"code", -1}, {"message", "e"}, {"data", 3}}}}),
            Message::CreateError(-1, "e", 3));
}

TEST(MessageDecoding, TakesAnErrorWithAnIdForAResponse) {
  EXPECT_EQ(Decode({{"error", EncodableMap{{"code", -1}, {"message", "e"}}}, {"id", 9}}),
            Message::CreateError(ID(9), -1, "e"));
}

TEST(MessageDecoding, TakesTheIdMemberOfAMapAsTheIdOfAResponseWithAnErrorButNotWithAResult) {
  const EncodableValue id = EncodableMap{{"id", 9}};
  EXPECT_EQ(Decode({{"error", EncodableMap{{"code", -1}, {"message", "e"}}}, {"id", id}}),
            Message::CreateError(ID(9), -1, "e"));
  ExpectParseError(Decode({{"result", 1}, {"id", id}}), "Invalid id value in RPC response object");
}

TEST(MessageDecoding, PrefersTheErrorToTheResult) {
  EXPECT_EQ(
      Decode({{"error", EncodableMap{{"code", -1}, {"message", "e"}}}, {"id", 9}, {"result", 1}}),
      Message::CreateError(ID(9), -1, "e"));
}

TEST(MessageDecoding, RefusesABadIdOfAResponseWithAnError) {
  ExpectParseError(Decode({{"error", EncodableMap{{"code", -1}, {"message", "e"}}}, {"id", {}}}),
                   "Invalid id value in RPC response object");
}

TEST(MessageDecoding, RefusesABadOrMissingIdOfAResponseWithAResult) {
  ExpectParseError(Decode({}), "Invalid id value in RPC response object");
  ExpectParseError(Decode({{"result", 1}}), "Invalid id value in RPC response object");
  ExpectParseError(Decode({{"result", 1}, {"id", ""}}), "Invalid id value in RPC response object");
  ExpectParseError(Decode({{"result", 1}, {"id", EncodableMap{{"id", "x"}}}}),
                   "Invalid id value in RPC response object");
}

TEST(MessageDecoding, TakesNoNoticeOfOtherMembers) {
  EXPECT_EQ(Decode({{1, "id"}, {"Method", "x"}, {"id", 1}, {"result", 2}, {"results", 3}}),
            Message::CreateResponse(ID(1), 2));
}

TEST(MessageDecoding, RefusesAnIdWithNothingElse) {
  ExpectParseError(Decode({{"id", 1}}), "Invalid RPC message");
}

TEST(MessageDecoding, TakesAnIdAndAResultForAResponse) {
  EXPECT_EQ(Decode({{"id", 1}, {"result", 2}}), Message::CreateResponse(ID("1"), 2));
}

// Where the bytes of a text are, which stays the same as long as it is only moved.
const char* TextIn(const EncodableValue& map, std::string_view key) {
  return map.Find<std::string>(key)->data();
}

// Too long to live inside a std::string.
const std::string kLongText(100, 'x');

TEST(MessageDecoding, MovesTheTextsOfARequest) {
  EncodableValue map(EncodableMap{
      {"jsonrpc", "2.0"}, {"id", kLongText}, {"method", kLongText}, {"params", kLongText}});
  const char* const id = TextIn(map, "id");
  const char* const method = TextIn(map, "method");
  const char* const params = TextIn(map, "params");
  const Message message = Message::FromEncodable(std::move(map));
  ASSERT_EQ(message, Message::CreateRequest(ID(kLongText), kLongText, kLongText));
  EXPECT_EQ(message.GetRequest()->id.value.data(), id);
  EXPECT_EQ(message.GetRequest()->method.data(), method);
  EXPECT_EQ(message.GetRequest()->params.AsString()->data(), params);
}

TEST(MessageDecoding, MovesTheIdOutOfAMap) {
  EncodableValue map(
      EncodableMap{{"jsonrpc", "2.0"}, {"id", EncodableMap{{"id", kLongText}}}, {"method", "m"}});
  const char* const id = TextIn(*map.Find("id"), "id");
  const Message message = Message::FromEncodable(std::move(map));
  ASSERT_EQ(message, Message::CreateRequest(ID(kLongText), "m", {}));
  EXPECT_EQ(message.GetRequest()->id.value.data(), id);
}

TEST(MessageDecoding, MovesTheTextsOfANotification) {
  EncodableValue map(
      EncodableMap{{"jsonrpc", "2.0"}, {"method", kLongText}, {"params", kLongText}});
  const char* const method = TextIn(map, "method");
  const char* const params = TextIn(map, "params");
  const Message message = Message::FromEncodable(std::move(map));
  ASSERT_EQ(message, Message::CreateNotification(kLongText, kLongText));
  EXPECT_EQ(message.GetNotification()->method.data(), method);
  EXPECT_EQ(message.GetNotification()->params.AsString()->data(), params);
}

TEST(MessageDecoding, MovesTheTextsOfAResponse) {
  EncodableValue map(EncodableMap{{"jsonrpc", "2.0"}, {"id", kLongText}, {"result", kLongText}});
  const char* const id = TextIn(map, "id");
  const char* const result = TextIn(map, "result");
  const Message message = Message::FromEncodable(std::move(map));
  ASSERT_EQ(message, Message::CreateResponse(ID(kLongText), kLongText));
  EXPECT_EQ(message.GetResponse()->id.value.data(), id);
  EXPECT_EQ(message.GetResponse()->GetResult()->AsString()->data(), result);
}

TEST(MessageDecoding, MovesTheTextsOfAnError) {
  EncodableValue map(EncodableMap{
      {"jsonrpc", "2.0"},
      {"id", kLongText},
      {"error", EncodableMap{{"code", 1}, {"message", kLongText}, {"data", kLongText}}}});
  const char* const id = TextIn(map, "id");
  const char* const text = TextIn(*map.Find("error"), "message");
  const char* const data = TextIn(*map.Find("error"), "data");
  const Message message = Message::FromEncodable(std::move(map));
  ASSERT_EQ(message, Message::CreateError(ID(kLongText), 1, kLongText, kLongText));
  EXPECT_EQ(message.GetResponse()->id.value.data(), id);
  EXPECT_EQ(message.GetResponse()->GetError()->message.data(), text);
  EXPECT_EQ(message.GetResponse()->GetError()->data.AsString()->data(), data);
}

TEST(MessageDecoding, LeavesAValueAloneThatItMayOnlyRead) {
  const EncodableValue map(EncodableMap{
      {"jsonrpc", "2.0"}, {"id", kLongText}, {"method", kLongText}, {"params", kLongText}});
  const EncodableValue same = map;
  Message::FromEncodable(map);
  ID::FromEncodable(map);
  EXPECT_EQ(map, same);
}

TEST(MessageDecoding, LogsNothingForFailuresThatBecomeErrors) {
  EXPECT_EQ(StdoutOf([] {
              Message::FromEncodable(EncodableValue());
              Decode({{"method", "m"}, {"id", ""}});
              Decode({{"error", 1}});
              Decode({{"id", 1}});
            }),
            "");
}

// --- Errors, in the order of the checks ---

void ExpectErrorFailure(const EncodableValue& value, const std::string& text) {
  const auto [success, error] = Error::FromEncodable(value);
  EXPECT_FALSE(success) << value;
  EXPECT_EQ(error, Error(-32700, text));
}

TEST(MessageError, MustBeAMap) {
  const auto* const text =
      "The Response Object MUST contain the error member with a value that is a Object";
  ExpectErrorFailure(EncodableValue(), text);
  ExpectErrorFailure("x", text);
  ExpectErrorFailure(EncodableList{}, text);
}

TEST(MessageError, MustHaveACodeBeforeAnythingElse) {
  ExpectErrorFailure(EncodableMap{}, "The Error object does not have a required code field.");
  ExpectErrorFailure(EncodableMap{{"message", 1}},
                     "The Error object does not have a required code field.");
}

TEST(MessageError, MustHaveAnIntegerAsCode) {
  for (const EncodableValue& code :
       {EncodableValue(), EncodableValue("1"), EncodableValue(1.0), EncodableValue(true)}) {
    ExpectErrorFailure(EncodableMap{{"code", code}}, "The code field contains not integer number");
  }
}

TEST(MessageError, MustHaveACodeOfThirtyTwoBits) {
  for (const std::int64_t code :
       {std::int64_t{4294967296}, std::int64_t{2147483648}, std::int64_t{-2147483649}, INT64_MIN}) {
    ExpectErrorFailure(EncodableMap{{"code", code}},
                       "The code field contains a value out of the supported range");
  }
}

TEST(MessageError, TakesCodesUpToTheBordersInEitherKindOfInteger) {
  for (const EncodableValue& code :
       {EncodableValue(INT32_MIN), EncodableValue(std::int64_t{INT32_MIN}),
        EncodableValue(INT32_MAX), EncodableValue(std::int64_t{INT32_MAX})}) {
    const auto [success, error] =
        Error::FromEncodable(EncodableMap{{"code", code}, {"message", ""}});
    EXPECT_TRUE(success) << code;
    EXPECT_EQ(error.code, *code.AsInt64());
  }
}

TEST(MessageError, MustHaveAMessage) {
  ExpectErrorFailure(EncodableMap{{"code", 1}},
                     "The Error object does not have a required messsage field.");
}

TEST(MessageError, MustHaveAStringAsMessage) {
  ExpectErrorFailure(EncodableMap{{"code", 1}, {"message", {}}},
                     "The message field contains not string value");
}

TEST(MessageError, KeepsDataOfAnyKindAndIsNullWithoutIt) {
  const auto with =
      Error::FromEncodable(EncodableMap{{"code", 1}, {"message", "m"}, {"data", EncodableList{1}}});
  EXPECT_TRUE(with.first);
  EXPECT_EQ(with.second, Error(1, "m", EncodableList{1}));
  const auto without = Error::FromEncodable(EncodableMap{{"code", 1}, {"message", "m"}});
  EXPECT_TRUE(without.first);
  EXPECT_TRUE(without.second.data.IsNull());
}

TEST(MessageError, SurvivesItsOwnEncoding) {
  for (const Error& error : {Error(-1, "e"), Error(INT32_MIN, "", 5), Error(1, "x", false)}) {
    const auto [success, decoded] = Error::FromEncodable(error.ToEncodable());
    EXPECT_TRUE(success);
    EXPECT_EQ(decoded, error);
  }
}

// --- Text form ---

TEST(MessageText, OfTheEmptyMessageIsThatOfNull) {
  std::string text;
  EXPECT_THAT(StdoutOf([&] { text = Message().ToBase64(); }),
              IsLogLine("error", "Invalid Json-RPC message"));
  EXPECT_EQ(text, EncodableValue().Serialize().ToBase64());
  EXPECT_EQ(text, "AA==");
}

TEST(MessageText, ThatIsEmptyGivesTheEmptyMessageWithoutALog) {
  EXPECT_EQ(StdoutOf([] { EXPECT_TRUE(Message::FromBase64("").IsEmpty()); }), "");
}

TEST(MessageText, ThatIsNoBase64OrHoldsNoValueIsEmplyOrInvalid) {
  for (const char* const text : {"AA==", "!", "AAA", "IA==", "DQ=="}) {
    ExpectParseError(Message::FromBase64(text), "Emply or invalid RPC message");
  }
}

TEST(MessageText, HasTheBytesThatTheFormatDemands) {
  // {"id": "7", "jsonrpc": "2.0", "method": "m"}, by hand.
  const std::string bytes(
      "\x0D\x03"
      "\x07\x02id\x07\x01\x37"
      "\x07\x07jsonrpc\x07\x03"
      "2.0"
      "\x07\x06method\x07\x01m");
  const auto text = Message::CreateRequest(ID(7), "m", {}).ToBase64();
  const quarn::Buffer buffer = quarn::Buffer::FromBase64(text);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.GetData()), buffer.GetSize()), bytes);
}

TEST(MessageText, AlignsAPayloadFromTheStartOfTheMessage) {
  const auto message = Message::CreateNotification("m", EncodableList{1.5, std::vector<double>{2}});
  EXPECT_EQ(Message::FromBase64(message.ToBase64()), message);
  EXPECT_EQ(message.ToBase64(), message.ToEncodable().Serialize().ToBase64());
}

EncodableValue Nest(std::size_t levels) {
  EncodableValue value(EncodableList{});
  for (std::size_t i = 1; i < levels; ++i) {
    EncodableList list;
    list.push_back(std::move(value));
    value = std::move(list);
  }
  return value;
}

TEST(MessageText, HoldsPayloadsAsDeepAsTheCodecAllows) {
  const auto message = Message::CreateNotification("m", Nest(cw::kMaxNesting - 1));
  EXPECT_EQ(Message::FromBase64(message.ToBase64()), message);
}

TEST(MessageText, RefusesADeeperPayload) {
  const auto message = Message::CreateNotification("m", Nest(cw::kMaxNesting));
  EXPECT_THROW(message.ToBase64(), std::length_error);
  EXPECT_THROW(message.ToEncodable().Serialize(), std::length_error);
}

TEST(MessageText, OfTypedListsAndLargeTextsIsThatOfTheMap) {
  for (const EncodableValue& payload :
       {EncodableValue(std::string(70000, 'x')), EncodableValue(std::vector<std::uint8_t>(300, 7)),
        EncodableValue(std::vector<std::int64_t>(300, 7)),
        EncodableValue(std::vector<float>(3, 0.5F)), EncodableValue(EncodableMap{{"a", 1}})}) {
    const auto message = Message::CreateResponse(ID("a"), payload);
    EXPECT_EQ(message.ToBase64(), message.ToEncodable().Serialize().ToBase64());
    EXPECT_EQ(Message::FromBase64(message.ToBase64()), message);
  }
}

TEST(MessageText, HoldsNullForAPayloadThatAnExceptionEmptied) {
  const auto message = Message::CreateRequest(ID(7), "m", cw::test_support::MakeValueless());
  const EncodableValue expected(
      EncodableMap{{"jsonrpc", "2.0"}, {"id", "7"}, {"method", "m"}, {"params", {}}});
  EXPECT_EQ(message.ToBase64(), expected.Serialize().ToBase64());
  EXPECT_EQ(message.ToEncodable().Serialize().ToBase64(), message.ToBase64());
}

TEST(MessageTextDeathTest, StopsTheProcessForACustomValue) {
  const auto message =
      Message::CreateNotification("m", EncodableValue(cw::CustomEncodableValue(5)));
  EXPECT_DEATH(message.ToBase64(), "");
}

}  // namespace
}  // namespace vorpc::test_support

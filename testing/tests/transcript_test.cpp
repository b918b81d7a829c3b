#include <gtest/gtest.h>
#include <tarv/testing/transcript.h>

#include <chrono>
#include <string>

namespace {

using tarv::testing::Transcript;
using tarv::testing::Way;
using vorpc::Message;
using namespace std::chrono_literals;

TEST(Transcript, HasALineForEachKindOfMessage) {
  Transcript transcript;
  const Message::ID id("id77_4");
  transcript.Add(Way::kToTask, Message::CreateRequest(Message::ID(1), "vorpc.connected", {}));
  transcript.Add(Way::kFromTask, Message::CreateResponse(Message::ID(1), {}));
  transcript.Add(Way::kToTask, Message::CreateRequest(id, "count", cw::EncodableMap{{"a", 1}}));
  transcript.Add(Way::kFromTask, Message::CreateNotification("half", 50), "delayed 2.0 s");
  transcript.Add(Way::kFromTask, Message::CreateError(id, -32602, "no texts", "params"));
  transcript.Add(Way::kToTask, Message::CreateRequest(Message::ID(9), "ping", {}));
  transcript.Add(Way::kFromTask, Message::CreateResponse(Message::ID(9), 5));
  transcript.Add(Way::kFromTask, Message::CreateError(-32700, "no message"));
  transcript.Add(Way::kFromTask, Message());
  transcript.Add(Way::kFromTask, Message::CreateResponse(Message::ID("alien"), 5));
  transcript.Note("the task has gone");
  EXPECT_EQ(transcript.GetText(),
            "-> connect\n"
            "<- connected\n"
            "-> request 1 'count' {\"a\": 1}\n"
            "<- notification 'half' 50 (delayed 2.0 s)\n"
            "<- error 1 -32602 \"no texts\" \"params\"\n"
            "-> request 2 'ping'\n"
            "<- result 2 5\n"
            "<- error of no request -32700 \"no message\"\n"
            "<- no message\n"
            "<- result 'alien' 5\n"
            "-- the task has gone\n");
}

TEST(Transcript, NamesRequestsByTheirNumbersInNotifications) {
  Transcript transcript;
  const Message::ID id("id5_12");
  transcript.Add(Way::kToTask, Message::CreateRequest(id, "count", {}));
  transcript.Add(Way::kFromTask,
                 Message::CreateNotification("$/progress",
                                             cw::EncodableMap{{"token", "id5_12"}, {"value", 1}}));
  transcript.Add(Way::kToTask, Message::CreateNotification("$/cancelRequest",
                                                           cw::EncodableMap{{"id", "id5_12"}}));
  transcript.Add(Way::kToTask, Message::CreateNotification("$/cancelRequest",
                                                           cw::EncodableMap{{"id", "another"}}));
  transcript.Add(Way::kToTask,
                 Message::CreateNotification("other", cw::EncodableMap{{"id", "id5_12"}}));
  EXPECT_EQ(transcript.GetText(),
            "-> request 1 'count'\n"
            "<- notification '$/progress' {\"token\": 1, \"value\": 1}\n"
            "-> notification '$/cancelRequest' {\"id\": 1}\n"
            "-> notification '$/cancelRequest' {\"id\": \"another\"}\n"
            "-> notification 'other' {\"id\": \"id5_12\"}\n");
}

TEST(Transcript, SaysWhenARefusalAnswersTheHandshake) {
  Transcript transcript;
  transcript.Add(Way::kToTask, Message::CreateRequest(Message::ID(1), "vorpc.connected", {}));
  transcript.Add(Way::kFromTask, Message::CreateError(Message::ID(1), -5, "another version"));
  EXPECT_EQ(transcript.GetText(), "-> connect\n<- refused -5 \"another version\"\n");
}

TEST(Transcript, TellsHowMuchTimePassesBetweenLines) {
  Transcript transcript;
  const tarv::Loop::Time start{1h};
  transcript.SetTime(start);
  transcript.Note("a");
  transcript.SetTime(start + 1s);
  transcript.SetTime(start + 90s);
  transcript.Note("b");
  transcript.Note("c");
  transcript.SetTime(start + 90s + 5ms);
  transcript.Note("d");
  EXPECT_EQ(transcript.GetText(),
            "-- a\n"
            "-- 1 min 30 s later\n"
            "-- b\n"
            "-- c\n"
            "-- 5 ms later\n"
            "-- d\n");
  transcript.Clear();
  EXPECT_EQ(transcript.GetText(), "");
}

TEST(Transcript, TellsDurationsAsPeopleDo) {
  EXPECT_EQ(tarv::testing::TextOfDuration(999ms), "999 ms");
  EXPECT_EQ(tarv::testing::TextOfDuration(1250ms), "1.2 s");
  EXPECT_EQ(tarv::testing::TextOfDuration(200s), "3 min 20 s");
  EXPECT_EQ(tarv::testing::TextOfDuration(125min), "2 h 5 min");
}

}  // namespace

// What is promised for any thread inside the library and by its free functions, used by eight at once.
#include <cw/encodable_value.h>
#include <cw/method_codec.h>
#include <cw/standard_codec.h>
#include <cw/standard_message_codec.h>
#include <gmock/gmock.h>
#include <quarn/library.h>
#include <vorpc/message.h>
#include <vorpc/qt/utils.h>

#include <QJsonValue>
#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "hammer.h"
#include "receiver.h"
#include "support/capture.h"

namespace tarv::torture {
namespace {

using cw::EncodableValue;
using vorpc::Message;
using vorpc::details::Receiver;

// Each failure has its own words, whichever threads fail meanwhile.
TEST(AnyThread, LoadsLibrariesAndFindsTheirFunctions) {
  Shared<quarn::Library> library;
  const auto load = [] { return quarn::Library::Create(LOADED_LIBRARY); };
  library.Swap(load());
  ASSERT_TRUE(library.Get());
  std::atomic<int> failures{0};
  const std::string output = test::StdoutOf([&] {
    Hammer({
        [&](Random&) { library.Swap(load()); },
        [&](Random&) { EXPECT_NE(library.Get()->ResolveImpl("TARVProcTableLoad"), nullptr); },
        [&](Random&) { EXPECT_EQ(library.Get()->ResolveImpl("none_such"), nullptr); },
        [&](Random& random) {
          const auto name = "/no/such/" + std::to_string(random() % 4) + ".so";
          EXPECT_EQ(quarn::Library::Create(name), nullptr);
          ++failures;
        },
    });
  });
  EXPECT_GT(failures, 0);
  EXPECT_THAT(output, testing::HasSubstr("/no/such/3.so"));
}

// Serializers of one's own, which threads hand to the codecs for the first time at once.
class OwnSerializers {
 public:
  static const cw::StandardMessageCodec& GetMessageCodec(Random& random) {
    return cw::StandardMessageCodec::GetInstance(&kSerializers[random() % kSerializers.size()]);
  }
  static const cw::StandardMethodCodec& GetMethodCodec(Random& random) {
    return cw::StandardMethodCodec::GetInstance(&kSerializers[random() % kSerializers.size()]);
  }

 private:
  inline static const std::array<cw::StandardCodecSerializer, 8> kSerializers{};
};

TEST(AnyThread, SharesSerializersAndCodecs) {
  const EncodableValue value = cw::EncodableMap{
      {"text", "a text"}, {"list", cw::EncodableList{1, 2.5, std::vector<std::int64_t>(9, 7)}}};
  Hammer({
      [&](Random& random) {
        const auto bytes = OwnSerializers::GetMessageCodec(random).EncodeMessage(value);
        const cw::StandardMessageCodec& other = OwnSerializers::GetMessageCodec(random);
        const auto back = other.DecodeMessage(bytes.GetData(), bytes.GetSize());
        EXPECT_TRUE(back != nullptr && *back == value);
      },
      [&](Random& random) {
        const cw::MethodCall<EncodableValue> call("name", std::make_unique<EncodableValue>(value));
        const auto bytes = OwnSerializers::GetMethodCodec(random).EncodeMethodCall(call);
        const cw::StandardMethodCodec& other = OwnSerializers::GetMethodCodec(random);
        const auto back = other.DecodeMethodCall(bytes.GetData(), bytes.GetSize());
        EXPECT_TRUE(back != nullptr && *back->GetArguments() == value);
      },
      [&](Random&) {
        const auto* const own = &cw::StandardMessageCodec::GetInstance();
        EXPECT_EQ(own, &cw::StandardMessageCodec::GetInstance());
      },
  });
}

TEST(AnyThread, ConvertsMessagesAndJson) {
  const EncodableValue value = cw::EncodableMap{{"text", "a text"}, {"number", 7}};
  const Message message = Message::CreateRequest(Message::ID("id"), "method", value);
  Hammer({
      [&](Random&) { EXPECT_EQ(Message::FromBase64(message.ToBase64()), message); },
      [&](Random&) { EXPECT_EQ(Message::FromEncodable(message.ToEncodable()), message); },
      [&](Random&) {
        QJsonValue json;
        EncodableValue back;
        EXPECT_TRUE(vorpc::qt::EncodableToJson(value, json));
        EXPECT_TRUE(vorpc::qt::JsonToEncodable(json, back));
        EXPECT_NE(back.Find("text"), nullptr);
      },
  });
}

// One pump, into which every thread puts messages both ways, and what came out.
struct OneReceiver {
  static Message Note() { return Message::CreateNotification("note", {}); }
  int CountDelivered() const { return sent + received; }

  // Each puts one message in.
  std::vector<Move> MovesThatPut() {
    const auto count = [this](void (*put_in)(Receiver&)) {
      return [this, put_in](Random&) {
        ++put;
        put_in(receiver);
      };
    };
    return {count([](Receiver& to) { to.Send(Note()); }),
            count([](Receiver& to) { to.Receive(Note()); }),
            count([](Receiver& to) { to.SendImmediately(Note()); }),
            count([](Receiver& to) { to.ReceiveImmediately(Note()); })};
  }

  std::atomic<int> put{0};
  std::atomic<int> sent{0};
  std::atomic<int> received{0};
  Receiver receiver{[this](Message&&) { ++sent; },
                    [this](const Message&) { return ++received % 2 == 0; }};
};

TEST(AnyThread, PutsMessagesIntoOneReceiverEachOfWhichComesOutOnce) {
  OneReceiver one;
  Receiver& receiver = one.receiver;
  std::atomic<int> heard{0};
  receiver.OnNotify("note", [&heard](const Message::Notification&) { ++heard; });
  std::vector<Move> moves = one.MovesThatPut();
  const auto seldom = [](unsigned int one_in, auto move) {
    return [one_in, move](Random& random) {
      if (random() % one_in == 0) {
        move();
      }
    };
  };
  moves.emplace_back([&](Random&) { receiver.ProcessQueue(); });
  moves.emplace_back(seldom(100, [&] { receiver.OnNotify("note", [](const auto&) {}); }));
  moves.emplace_back(seldom(1000, [&] { receiver.SetQueueEnabled(); }));
  // A handler more now and then makes each message dearer: the long form is shorter here.
  Hammer(moves, std::min(CountOfMoves(), 10'000));
  receiver.SetQueueEnabled();
  EXPECT_EQ(one.CountDelivered(), one.put);
  EXPECT_GT(heard, 0);
}

TEST(AnyThread, PutsMessagesIntoAReceiverThatCloses) {
  OneReceiver one;
  one.receiver.SetQueueEnabled();
  std::thread closer([&one] { one.receiver.Close(); });
  Hammer(one.MovesThatPut(), 200);
  closer.join();
  const int before = one.CountDelivered();
  Hammer(one.MovesThatPut(), 20);
  EXPECT_EQ(one.CountDelivered(), before);
}

}  // namespace
}  // namespace tarv::torture

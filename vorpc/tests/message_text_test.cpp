// Decoding a text straight into a message, beside the simple way over the map that the text holds:
// the same message, log lines and error lines for whatever comes.
#include <cw/codec_limits.h>
#include <cw/standard_codec.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <vorpc/internal/message_text.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "random_messages.h"
#include "support/bytes.h"
#include "support/capture.h"

namespace vorpc::test_support {
namespace {

using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;
using cw::test_support::Bytes;
using cw::test_support::FromHex;
using cw::test_support::TestSeed;
using cw::test_support::ToBytes;
using tarv::test::CaptureStderr;
using tarv::test::CaptureStdout;

constexpr std::size_t kSmallStack = std::size_t{SMALL_STACK_KIB} << 10U;

Message FromBase64ByMap(const std::string& text) {
  return text.empty()
             ? Message()
             : Message::FromEncodable(EncodableValue::Deserialize(quarn::Buffer::FromBase64(text)));
}

// What decoding some texts gives and writes.
struct Outcome {
  std::vector<Message> messages;
  std::string output;
  std::string errors;
};

template <class Decode>
Outcome DecodeAll(const std::vector<std::string>& texts, const Decode& decode) {
  Outcome outcome;
  const CaptureStdout output;
  const CaptureStderr errors;
  for (const std::string& text : texts) {
    outcome.messages.push_back(decode(text));
  }
  outcome.output = output.GetText();
  outcome.errors = errors.GetText();
  return outcome;
}

// A NaN equals nothing, but has bytes.
bool AreSame(const Message& a, const Message& b) {
  return a == b || (a.GetType() == b.GetType() && !a.IsEmpty() && a.ToBase64() == b.ToBase64());
}

void ExpectSameAsByMap(const std::vector<std::string>& texts) {
  const Outcome expected = DecodeAll(texts, &FromBase64ByMap);
  const Outcome outcome =
      DecodeAll(texts, [](const std::string& text) { return Message::FromBase64(text); });
  for (std::size_t i = 0; i < texts.size(); ++i) {
    ASSERT_TRUE(AreSame(outcome.messages[i], expected.messages[i]))
        << texts[i].substr(0, 400) << ": " << outcome.messages[i] << " instead of "
        << expected.messages[i];
  }
  ASSERT_EQ(outcome.output, expected.output);
  ASSERT_EQ(outcome.errors, expected.errors);
}

std::string TextOf(const Bytes& bytes) { return quarn::Buffer(bytes).ToBase64(); }

using Entries = std::vector<std::pair<std::string, EncodableValue>>;

// The bytes of a map with these entries, in this order, twice the same key included.
Bytes BytesOf(const Entries& entries) {
  quarn::Buffer buffer;
  cw::ByteBufferStreamWriter stream(&buffer);
  cw::MapWriter map(entries.size(), &cw::StandardCodecSerializer::GetInstance(), &stream);
  for (const auto& [key, value] : entries) {
    map.Add(key, value);
  }
  return ToBytes(buffer);
}

Bytes Join(Bytes front, const Bytes& back) {
  front.insert(front.end(), back.begin(), back.end());
  return front;
}

// Members in every kind of order, missing, doubled and of every kind.
std::vector<Bytes> OddMaps() {
  const EncodableValue error(EncodableMap{{"code", 7}, {"message", "bad"}, {"data", 1.5}});
  return {
      BytesOf({{"result", 1}, {"jsonrpc", "2.0"}, {"id", "a"}}),
      BytesOf({{"id", "a"}, {"id", "b"}, {"jsonrpc", "2.0"}, {"method", "m"}, {"method", "n"}}),
      BytesOf({{"jsonrpc", "2.0"}, {"jsonrpc", "3.0"}, {"method", "m"}, {"params", {}}}),
      BytesOf({{"jsonrpc", "3.0"}, {"jsonrpc", "2.0"}, {"method", "m"}}),
      BytesOf({{"jsonrpc", 2}, {"method", "m"}}),
      BytesOf({{"jsonrpc", "2.0 "}, {"method", "m"}}),
      BytesOf({{"jsonrpc", "2.0"}}),
      BytesOf({}),
      BytesOf({{"", "x"}, {"jsonrpc", "2.0"}, {"", {}}, {"other", error}, {"method", "m"}}),
      BytesOf({{"jsonrpc", "2.0"}, {"method", ""}, {"id", 1}}),
      BytesOf({{"jsonrpc", "2.0"}, {"method", 5}}),
      BytesOf({{"jsonrpc", "2.0"}, {"method", "m"}, {"id", std::int64_t{1} << 40}}),
      BytesOf({{"jsonrpc", "2.0"}, {"method", "m"}, {"id", 1.5}}),
      BytesOf({{"jsonrpc", "2.0"}, {"method", "m"}, {"id", EncodableMap{{"id", 5}}}}),
      BytesOf({{"jsonrpc", "2.0"}, {"result", 1}, {"id", EncodableMap{{"id", 5}}}}),
      BytesOf({{"jsonrpc", "2.0"}, {"error", error}}),
      BytesOf({{"jsonrpc", "2.0"}, {"error", error}, {"id", 5}}),
      BytesOf({{"jsonrpc", "2.0"}, {"error", error}, {"id", ""}}),
      BytesOf({{"jsonrpc", "2.0"}, {"error", EncodableMap{{"code", 7}}}, {"id", 5}}),
      BytesOf({{"jsonrpc", "2.0"}, {"error", "e"}, {"id", 5}, {"result", 6}}),
      BytesOf({{"jsonrpc", "2.0"}, {"id", 5}, {"result", EncodableList{1, "x", error}}}),
      BytesOf({{"jsonrpc", "2.0"}, {"method", "m"}, {"params", std::vector<double>{1, 2}}}),
      BytesOf({{"jsonrpc", "2.0"}, {"params", std::vector<double>()}, {"method", "m"}}),
      BytesOf({{"a", std::vector<float>()}, {"jsonrpc", "2.0"}, {"method", "m"}}),
  };
}

// Not maps, maps with other keys, and bytes that no writer makes.
std::vector<Bytes> OddBytes() {
  const Bytes request = BytesOf({{"id", "a"}, {"jsonrpc", "2.0"}, {"method", "m"}});
  return {
      Join(request, request),
      Join(request, {0x20, 0x0D}),
      // {"jsonrpc": "2.0", "method": "m"} with its keys as large integers.
      FromHex("0D 02 05 07 6A 73 6F 6E 72 70 63 05 03 32 2E 30 05 06 6D 65 74 68 6F 64 05 01 6D"),
      // The same, with the size of a key in three bytes.
      FromHex("0D 02 07 FE 07 00 6A 73 6F 6E 72 70 63 07 03 32 2E 30 07 06 6D 65 74 68 6F 64 05 01 "
              "6D"),
      // Keys of other kinds, and of none.
      FromHex("0D 05 00 01 20 02 03 01 00 00 00 0C 01 21 06 00 00 00 00 00 00 00 00 00 00 07 07 6A "
              "73 6F 6E 72 70 63 07 03 32 2E 30"),
      FromHex("0D FF FF FF FF FF"),
      FromHex("0D FE 00 04"),
      FromHex("0D 03 07 FF 00 00 00 01 61"),
      FromHex("0C 02 20 21"),
      FromHex("07 03 61"),
      FromHex("20"),
      FromHex("00"),
  };
}

// The value under "params" nests as deep as it may, and deeper: lists of one list each. Behind it,
// enough to be read in each of the ways.
std::vector<Bytes> DeepMaps() {
  std::vector<Bytes> maps;
  for (const std::size_t levels : {cw::kMaxNesting - 1, cw::kMaxNesting, 2 * cw::kMaxNesting}) {
    Bytes bytes =
        FromHex("0D 02 07 07 6A 73 6F 6E 72 70 63 07 03 32 2E 30 07 06 70 61 72 61 6D 73");
    for (std::size_t i = 0; i < levels; ++i) {
      bytes = Join(std::move(bytes), {0x0C, 1});
    }
    bytes.push_back(0);
    for (const std::size_t size : {0U, 5000U, 100000U}) {
      maps.push_back(Join(bytes, Bytes(size)));
    }
  }
  return maps;
}

// Lists that announce more items than there are bytes, within the bound for that and beyond it,
// behind a payload that makes the text a large one.
std::vector<Bytes> MadeUpMaps() {
  const Bytes front = Join(
      BytesOf({{"jsonrpc", "2.0"}, {"method", "m"}, {"a", Bytes(60000, 7)}, {"params", {}}}), {});
  std::vector<Bytes> maps;
  for (std::uint8_t type = 0x07; type <= 0x0E; ++type) {
    for (const std::uint8_t count : Bytes{0x01, 0xFF}) {
      Bytes bytes(front.begin(), front.end() - 1);
      maps.push_back(Join(std::move(bytes), {type, 0xFF, 0x00, count, 0x00, 0x00}));
    }
  }
  return maps;
}

std::vector<Bytes> Corpus() {
  std::vector<Bytes> corpus = OddMaps();
  const std::vector<Bytes> odd = OddBytes();
  corpus.insert(corpus.end(), odd.begin(), odd.end());
  return corpus;
}

TEST(MessageText, IsReadAsTheMapThatItHolds) {
  for (const Bytes& bytes : Corpus()) {
    ExpectSameAsByMap({TextOf(bytes)});
    ASSERT_FALSE(HasFailure());
  }
}

TEST(MessageText, IsReadAsTheMapThatItHoldsHoweverDeepThatIs) {
  for (const Bytes& bytes : DeepMaps()) {
    ExpectSameAsByMap({TextOf(bytes)});
    ASSERT_FALSE(HasFailure());
  }
}

TEST(MessageText, IsReadAsTheMapThatItHoldsWhenItAnnouncesMoreThanItHas) {
  for (const Bytes& bytes : MadeUpMaps()) {
    ExpectSameAsByMap({TextOf(bytes)});
    ASSERT_FALSE(HasFailure());
  }
}

TEST(MessageText, IsReadAsTheMapThatItHoldsWhenItIsCutShort) {
  for (const Bytes& bytes : Corpus()) {
    std::vector<std::string> texts;
    for (std::size_t size = 0; size < bytes.size(); ++size) {
      texts.push_back(quarn::Buffer(bytes.data(), size).ToBase64());
    }
    ExpectSameAsByMap(texts);
    ASSERT_FALSE(HasFailure());
  }
}

TEST(MessageText, IsReadAsTheMapThatItHoldsWithEachBitFlipped) {
  for (Bytes bytes : Corpus()) {
    std::vector<std::string> texts;
    for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
      const auto mask = static_cast<std::uint8_t>(1U << (bit % 8));
      bytes[bit / 8] ^= mask;
      texts.push_back(TextOf(bytes));
      bytes[bit / 8] ^= mask;
    }
    ExpectSameAsByMap(texts);
    ASSERT_FALSE(HasFailure());
  }
}

TEST(MessageText, IsReadAsTheMapThatItHoldsForRandomMessages) {
  const std::uint64_t seed = TestSeed(8086);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomMessages messages(seed);
  std::vector<std::string> texts;
  for (int i = 0; i < 2000; ++i) {
    texts.push_back(messages.Next().ToBase64());
    texts.push_back(messages.NextDamaged(messages.Next().ToBase64()));
  }
  ExpectSameAsByMap(texts);
}

TEST(MessageText, IsReadAsTheMapThatItHoldsForRandomDamage) {
  const std::uint64_t seed = TestSeed(6502);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  RandomMessages messages(seed);
  std::vector<std::string> texts;
  for (int i = 0; i < 1000; ++i) {
    Bytes bytes = ToBytes(messages.Next().ToEncodable().Serialize());
    for (int hit = 0; hit < 3; ++hit) {
      bytes[messages.Below(bytes.size())] = static_cast<std::uint8_t>(messages.Below(256));
    }
    texts.push_back(TextOf(bytes));
  }
  ExpectSameAsByMap(texts);
}

// Payloads of a size that is read piece by piece, bare and inside a map with more behind it.
std::vector<Bytes> LargeMaps() {
  std::vector<Bytes> maps;
  for (const std::size_t size : {48000U, 49099U, 49100U, 49101U, 49110U, 49150U, 60001U, 140000U}) {
    const std::vector<std::uint8_t> bytes(size, 0xA5);
    maps.push_back(BytesOf({{"jsonrpc", "2.0"}, {"method", "m"}, {"params", bytes}}));
    maps.push_back(BytesOf({{"id", "1"},
                            {"jsonrpc", "2.0"},
                            {"result", EncodableMap{{"data", bytes}, {"of", 0.5}}},
                            {"result", std::string(size, 'x')}}));
    maps.push_back(Join(BytesOf({{"jsonrpc", "2.0"}, {"id", "1"}, {"result", bytes}}), {0x20, 1}));
    maps.push_back(Join(BytesOf({{"jsonrpc", "2.0"}, {"id", bytes}}), FromHex("0D 20 21")));
    maps.push_back(Join(FromHex("0D 03 20"), BytesOf({{"result", bytes}})));
    maps.push_back(Join(FromHex("0C 02 20"), BytesOf({{"result", bytes}})));
    maps.push_back(ToBytes(EncodableValue(EncodableList{bytes, "no map"}).Serialize()));
  }
  return maps;
}

TEST(MessageText, IsReadAsTheMapThatItHoldsWhenItIsLarge) {
  for (const Bytes& bytes : LargeMaps()) {
    ExpectSameAsByMap({TextOf(bytes)});
    ASSERT_FALSE(HasFailure());
  }
}

TEST(MessageText, IsReadAsTheMapThatItHoldsWhenItIsLargeAndCutShort) {
  for (const Bytes& bytes : LargeMaps()) {
    std::vector<std::string> texts;
    for (std::size_t cut = 1; cut < 40; ++cut) {
      texts.push_back(quarn::Buffer(bytes.data(), bytes.size() - cut).ToBase64());
      texts.push_back(TextOf(bytes).substr(0, TextOf(bytes).size() - cut));
    }
    ExpectSameAsByMap(texts);
    ASSERT_FALSE(HasFailure());
  }
}

TEST(MessageText, IsReadAsTheMapThatItHoldsWhenItIsLargeAndDamaged) {
  const std::uint64_t seed = TestSeed(68000);
  SCOPED_TRACE("TARV_TEST_SEED=" + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (const Bytes& bytes : LargeMaps()) {
    std::vector<std::string> texts;
    for (int i = 0; i < 20; ++i) {
      std::string text = TextOf(bytes);
      const std::size_t place = random() % 2 == 0 ? random() % 120 : random() % text.size();
      text[place] = random() % 2 == 0 ? 'Q' : static_cast<char>(random());
      texts.push_back(std::move(text));
    }
    ExpectSameAsByMap(texts);
    ASSERT_FALSE(HasFailure());
  }
}

TEST(MessageText, IsThatOfTheMapForLargePayloadsInEveryPhase) {
  for (const char* const id : {"a", "aa", "aaa"}) {
    for (const std::size_t size : {3000U, 3071U, 3072U, 3073U, 65535U, 65536U, 200000U}) {
      const auto message = Message::CreateResponse(
          Message::ID(id), EncodableList{std::vector<std::uint8_t>(size, 0x5A),
                                         std::vector<double>(size / 8, 0.1), "end"});
      ASSERT_EQ(message.ToBase64(), message.ToEncodable().Serialize().ToBase64()) << size;
      ASSERT_EQ(Message::FromBase64(message.ToBase64()), message) << size;
    }
  }
}

// Texts of each size that is read in a way of its own.
constexpr std::size_t kPayloads[] = {0, 5000, 100000};

TEST(MessageText, BringsEmptyTypedListsAndWhatIsBehindThem) {
  const CaptureStderr errors;
  for (const std::size_t size : kPayloads) {
    const EncodableMap content{{"data", Bytes(size, 7)},
                               {"tags", std::vector<std::int32_t>()},
                               {"times", std::vector<double>()},
                               {"user", "ann"}};
    const Message request = Message::CreateRequest(Message::ID(7), "store", content);
    EXPECT_EQ(Message::FromBase64(request.ToBase64()), request) << size;
    const Message error = Message::CreateError(Message::ID(7), 5, "no", content);
    EXPECT_EQ(Message::FromBase64(error.ToBase64()), error) << size;
    const Message bare = Message::CreateError(Message::ID(7), 5, "no", std::vector<std::int64_t>());
    EXPECT_EQ(Message::FromBase64(bare.ToBase64()), bare);
  }
  EXPECT_EQ(errors.GetText(), "");
}

TEST(MessageText, MayHaveItsEmptyTypedListsPadded) {
  const CaptureStderr errors;
  for (const std::size_t size : kPayloads) {
    const Bytes data(size, 7);
    const Bytes front = BytesOf({{"data", data}, {"jsonrpc", "2.0"}, {"params", {}}});
    Bytes bytes(front.begin(), front.end() - 1);
    bytes[1] = 4;
    bytes = Join(std::move(bytes), {0x0A, 0});
    bytes.resize((bytes.size() + 7) / 8 * 8);
    bytes = Join(std::move(bytes), FromHex("07 06 6D 65 74 68 6F 64 07 01 6D"));
    EXPECT_EQ(Message::FromBase64(TextOf(bytes)),
              Message::CreateNotification("m", std::vector<std::int64_t>()))
        << size;
  }
  EXPECT_EQ(errors.GetText(), "");
}

TEST(MessageText, IsReadWhereItLies) {
  const Message message = Message::CreateRequest(Message::ID(7), "m", 5);
  const std::string text = message.ToBase64();
  EXPECT_EQ(MessageFromText(std::string_view(text + "AAAA").substr(0, text.size())), message);
  EXPECT_EQ(MessageFromText({}), Message());
}

// Lists in lists, with a large payload behind them, on a stack as small as any thread has.
TEST(MessageText, AsDeepAsItMayBeFitsASmallStack) {
  EncodableValue params(std::vector<double>(20000, 0.5));
  for (std::size_t level = 1; level + 1 < cw::kMaxNesting; ++level) {
    params = EncodableList{std::move(params)};
  }
  const std::string text = Message::CreateNotification("m", params).ToBase64();
  static const std::string* shared_text = nullptr;
  shared_text = &text;
  pthread_attr_t attributes;
  ASSERT_EQ(::pthread_attr_init(&attributes), 0);
  ASSERT_EQ(::pthread_attr_setstacksize(&attributes, kSmallStack), 0);
  pthread_t thread{};
  const auto decode = [](void* /*none*/) -> void* {
    static Message message;
    message = Message::FromBase64(*shared_text);
    return &message;
  };
  ASSERT_EQ(::pthread_create(&thread, &attributes, decode, nullptr), 0);
  void* message = nullptr;
  ASSERT_EQ(::pthread_join(thread, &message), 0);
  ::pthread_attr_destroy(&attributes);
  EXPECT_EQ(static_cast<const Message*>(message)->GetType(), Message::Type::Notification);
}

}  // namespace
}  // namespace vorpc::test_support

// The worked bytes of docs/wire-formats.md, taken from the page.

#include <cw/encodable_value.h>
#include <cw/method_codec.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <quarn/buffer.h>
#include <vorpc/message.h>

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <cstdint>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

// The lines of each code block of the language.
std::vector<Lines> Blocks(const std::string& language) {
  std::ifstream page(TARV_WIRE_FORMATS_PAGE);
  std::vector<Lines> blocks;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line == "```" + language) {
      blocks.emplace_back();
      inside = true;
    } else if (line == "```") {
      inside = false;
    } else if (inside) {
      blocks.back().push_back(line);
    }
  }
  return blocks;
}

template <class T>
std::string Print(const T& value) {
  std::ostringstream stream;
  stream << value;
  return stream.str();
}

bool IsHexPair(const std::string& word) {
  return word.size() == 2 && word.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// The bytes at the front of a line; what explains them follows after two spaces.
void AddBytes(const std::string& line, std::vector<std::uint8_t>* bytes) {
  std::istringstream front(line.substr(0, line.find("  ")));
  for (std::string word; front >> word;) {
    ASSERT_TRUE(IsHexPair(word)) << line;
    bytes->push_back(static_cast<std::uint8_t>(std::stoul(word, nullptr, 16)));
  }
}

// A block's first lines are values, the others bytes.
void Split(const Lines& block, Lines* values, std::vector<std::uint8_t>* bytes) {
  for (const std::string& line : block) {
    if (bytes->empty() && !IsHexPair(line.substr(0, line.find(' ')))) {
      values->push_back(line);
    } else {
      AddBytes(line, bytes);
    }
  }
}

void ExpectValue(const std::string& printed, const quarn::Buffer& bytes) {
  const cw::EncodableValue value = cw::EncodableValue::Deserialize(bytes);
  EXPECT_EQ(Print(value), printed);
  EXPECT_EQ(value.Serialize(), bytes) << printed;
}

void ExpectCall(const Lines& printed, const quarn::Buffer& bytes) {
  const auto& codec = cw::StandardMethodCodec::GetInstance();
  const auto call = codec.DecodeMethodCall(bytes);
  ASSERT_NE(call, nullptr);
  EXPECT_EQ(Print(cw::EncodableValue(call->GetMethodName())), printed.front());
  ASSERT_NE(call->GetArguments(), nullptr);
  EXPECT_EQ(Print(*call->GetArguments()), printed.back());
  EXPECT_EQ(codec.EncodeMethodCall(*call), bytes);
}

TEST(WireFormats, AreThoseOfThePage) {
  int calls = 0;
  for (const Lines& block : Blocks("bytes")) {
    Lines values;
    std::vector<std::uint8_t> bytes;
    Split(block, &values, &bytes);
    ASSERT_FALSE(values.empty() || bytes.empty());
    if (values.size() == 2) {
      ExpectCall(values, quarn::Buffer(bytes));
      ++calls;
    } else {
      ExpectValue(values.front(), quarn::Buffer(bytes));
    }
  }
  EXPECT_EQ(calls, 1);
  EXPECT_GT(Blocks("bytes").size(), 4U);
}

std::set<std::string> TextsOfMessages() {
  std::set<std::string> texts;
  for (const Lines& block : Blocks("message")) {
    texts.insert(block.at(1));
  }
  return texts;
}

TEST(WireFormats, OfMessagesAreThoseOfThePage) {
  EXPECT_EQ(TextsOfMessages().size(), 6U);
  for (const Lines& block : Blocks("message")) {
    ASSERT_EQ(block.size(), 2U);
    const vorpc::Message message = vorpc::Message::FromBase64(block.back());
    EXPECT_EQ(Print(message.ToEncodable()), block.front());
    EXPECT_EQ(message.ToBase64(), block.back());
  }
}

TEST(WireFormats, OfLinesHoldTheMessagesOfThePage) {
  const std::vector<Lines> blocks = Blocks("json");
  ASSERT_EQ(blocks.size(), 1U);
  for (const std::string& line : blocks.front()) {
    const QJsonObject object = QJsonDocument::fromJson(QByteArray::fromStdString(line)).object();
    EXPECT_EQ(QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString(), line);
    EXPECT_THAT(TextsOfMessages(), testing::Contains(object["data"].toString().toStdString()));
  }
}

}  // namespace

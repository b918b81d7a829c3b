// Any bytes as a message, read straight from its text and by way of the map that they describe: the
// same message, the same log, the same lines on standard error.
#include <vorpc/message.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "support/capture.h"
#include "support/require.h"
#include "support/values.h"

namespace {

struct Reading {
  cw::EncodableValue value;
  bool is_empty = false;
  std::string log;
  std::string lines;
};

template <class Read>
Reading ReadBy(Read&& read) {
  const tarv::test::CaptureStdout log;
  const tarv::test::CaptureStderr lines;
  const vorpc::Message message = read();
  Reading reading;
  reading.is_empty = message.IsEmpty();
  reading.log = log.GetText();
  reading.lines = lines.GetText();
  if (!reading.is_empty) {
    reading.value = message.ToEncodable();
  }
  return reading;
}

// The lines without their second word, the place in the source, in which the two may differ.
std::string WithoutPlaces(const std::string& log) {
  std::istringstream lines(log);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    const std::size_t place = line.find(' ');
    text += line.substr(0, place) + line.substr(std::min(line.find(' ', place + 1), line.size())) +
            '\n';
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv::fuzz;
  if (size == 0) {
    return 0;  // an empty text is the empty message by definition
  }
  const quarn::Buffer bytes(data, size);
  const std::string text = bytes.ToBase64();
  const Reading direct = ReadBy([&text] { return vorpc::Message::FromBase64(text); });
  const Reading by_map = ReadBy(
      [&bytes] { return vorpc::Message::FromEncodable(cw::EncodableValue::Deserialize(bytes)); });
  Require(direct.is_empty == by_map.is_empty, "both are empty, or none");
  Require(direct.lines == by_map.lines, "the same lines on standard error");
  Require(WithoutPlaces(direct.log) == WithoutPlaces(by_map.log), "the same log");
  Require(HasUnorderedKey(by_map.value) || AreSame(direct.value, by_map.value), "the same message");
  return 0;
}

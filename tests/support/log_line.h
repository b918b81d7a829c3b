// A matcher for captured log lines.
//
//   EXPECT_THAT(tarv::test::StdoutOf([] { cache.RemoveChunk(7); }),
//               tarv::test::IsLogLine("error", "Invalid chunk ID <7>"));
#ifndef SUPPORT_LOG_LINE_H
#define SUPPORT_LOG_LINE_H

#include <gmock/gmock.h>

#include <string>

namespace tarv::test {

// One whole line, without colours: the tag of `level`, a source location " path.cpp:12 ", exactly
// `message`, a line break, and nothing else.
MATCHER_P2(IsLogLine, level, message,
           std::string(negation ? "is not" : "is") + " the " + level + " line: " + message) {
  const std::string& text = arg;
  const std::string tag = "[" + std::string(level) + "] ";
  const std::string end = " " + std::string(message) + "\n";
  if (text.size() < tag.size() + end.size() || text.compare(0, tag.size(), tag) != 0 ||
      text.compare(text.size() - end.size(), end.size(), end) != 0) {
    return false;
  }
  const std::string location = text.substr(tag.size(), text.size() - tag.size() - end.size());
  *result_listener << "with the location " << location;
  return testing::Matches(testing::MatchesRegex("[a-z][A-Za-z0-9_/]*\\.(cpp|h):[0-9]+"))(location);
}

}  // namespace tarv::test

#endif  // SUPPORT_LOG_LINE_H

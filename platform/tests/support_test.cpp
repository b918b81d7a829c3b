// The texts that the whole host shares.
#include "../host/support.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <QtCore/QFile>
#include <csignal>
#include <functional>
#include <random>

#include "kit.h"

namespace RuntimeManager::host {
namespace {

using kit::StderrPipe;
using kit::WarningCatcher;

TEST(DurationText, IsAsAPersonSaysIt) {
  EXPECT_EQ(DurationText(0), "0 ms");
  EXPECT_EQ(DurationText(999), "999 ms");
  EXPECT_EQ(DurationText(1000), "1.0 s");
  EXPECT_EQ(DurationText(1299), "1.2 s");
  EXPECT_EQ(DurationText(59'999), "59.9 s");
  EXPECT_EQ(DurationText(60'000), "1 min 0 s");
  EXPECT_EQ(DurationText(3'599'999), "59 min 59 s");
  EXPECT_EQ(DurationText(3'600'000), "1 h 0 min");
  EXPECT_EQ(DurationText(93'900'000), "26 h 5 min");
}

TEST(SignalText, HasTheNumberAndTheName) {
  EXPECT_EQ(SignalText(SIGKILL), "9 (SIGKILL)");
  EXPECT_EQ(SignalText(SIGSEGV), "11 (SIGSEGV)");
  EXPECT_EQ(SignalText(SIGRTMIN + 2), QString("%1 (SIGRTMIN+2)").arg(SIGRTMIN + 2));
  EXPECT_EQ(SignalText(0), "0 (of no name)");
}

TEST(EscapedText, IsTheTextItselfButForControlCharactersAndBytesThatAreNoUtf8) {
  EXPECT_EQ(Escaped(""), "");
  EXPECT_EQ(Escaped("plain \\ \"text\" ~"), "plain \\ \"text\" ~");
  EXPECT_EQ(Escaped("a\nb\tc\rd"), "a\\nb\\tc\\x0dd");
  EXPECT_EQ(Escaped(QByteArray("\0\x1b[31m\x7f", 7)), "\\x00\\x1b[31m\\x7f");
  EXPECT_EQ(Escaped("\xc2\x9b"), "\\xc2\\x9b") << "a control character above ASCII";
  const QByteArray characters("\xc2\xa0 \xc3\xbc \xe2\x82\xac \xf0\x9f\x98\x80 \xf4\x8f\xbf\xbf");
  EXPECT_EQ(Escaped(characters), QString::fromUtf8(characters));
  for (const char* const bad :
       {"\x80", "\xc0\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf",
        "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80", "\xff", "\xe2\x82", "\xc3"}) {
    QString each;
    for (const char byte : QByteArray(bad)) {
      each += "\\x" + QString::fromLatin1(QByteArray(1, byte).toHex());
    }
    EXPECT_EQ(Escaped(bad), each);
  }
}

TEST(EscapedText, OfAnyBytesHasNoControlCharacter) {
  std::mt19937 random(1);
  std::uniform_int_distribution<int> byte(0, 255);
  QByteArray bytes;
  for (int i = 0; i < 100'000; ++i) {
    bytes += static_cast<char>(byte(random));
  }
  for (const QChar character : Escaped(bytes)) {
    ASSERT_GE(character.unicode(), ' ');
    ASSERT_FALSE(character.unicode() >= 0x7F && character.unicode() < 0xA0);
    ASSERT_NE(character, QChar(QChar::ReplacementCharacter));
  }
}

TEST(EscapedText, IsCutAtEitherEndToTheBytesThatAreAskedFor) {
  EXPECT_EQ(EscapedHead("abcdef", 6), "abcdef");
  EXPECT_EQ(EscapedHead("abcdefg", 6), "abcdef...");
  EXPECT_EQ(EscapedTail("abcdef", 6), "abcdef");
  EXPECT_EQ(EscapedTail("abcdefg", 6), "...bcdefg");
  // What escaping adds counts, and a character stays whole.
  EXPECT_EQ(EscapedHead("\x01\x02", 6), "\\x01\\x...");
  EXPECT_EQ(EscapedTail("\x01\x02", 6), "...01\\x02");
  EXPECT_EQ(EscapedHead("aaaa\xe2\x82\xac\x01", 6), "aaaa...");
  EXPECT_EQ(EscapedTail("\x01\xe2\x82\xac\x61\x61\x61\x61", 6), "...aaaa");
}

TEST(Warning, IsOneLineWithoutControlCharacters) {
  const WarningCatcher warnings;
  Warn("a peer says: \x1b[2J\nforged line");
  EXPECT_EQ(warnings.Count("a peer says: \\x1b[2J\\nforged line"), 1);
  EXPECT_EQ(warnings.Count("\n"), 0);
}

TEST(Warning, TakesNoMoreThanAPipeTakesAtOnce) {
  StderrPipe pipe;
  Warn(QString(10'000, '\x01'));
  EXPECT_LE(pipe.ReadToEnd().size(), 2100);
}

// A pipe with room for less than a page takes nothing at all.
TEST(Warning, IsDroppedAndCountedWhileStandardErrorTakesNothing) {
  StderrPipe pipe;
  pipe.Fill();
  const kit::Rescuer rescuer(pipe);
  Warn("first");
  Warn("second");
  pipe.MakeRoom();
  Warn("third");
  pipe.MakeRoom();
  Warn("fourth");
  EXPECT_FALSE(rescuer.WasNeeded());
  const QByteArray all = pipe.ReadToEnd();
  EXPECT_FALSE(all.contains("first"));
  EXPECT_FALSE(all.contains("second"));
  EXPECT_TRUE(all.endsWith(
      "third (2 lines before this one are missing: standard error took nothing)\nfourth\n"));
}

TEST(Warning, KillsNoProcessWhoseStandardErrorHasNoReader) {
  const auto before = std::signal(SIGPIPE, SIG_DFL);
  {
    StderrPipe pipe;
    pipe.CloseReadEnd();
    Warn("nobody reads this");
  }
  std::signal(SIGPIPE, before);
}

}  // namespace
}  // namespace RuntimeManager::host

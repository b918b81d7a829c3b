#include "fault_rules.h"

#include <cctype>
#include <map>
#include <utility>

#include "support.h"

namespace RuntimeManager::host {
namespace {

using Kind = FaultRule::Kind;
using Way = FaultRule::Way;

// So that times and sums of them fit their types.
constexpr quint64 kMostMs = 24ULL * 3600 * 1000;
constexpr quint64 kMostNumber = 1ULL << 40U;
constexpr unsigned kHundred = 100;

const std::map<QByteArray, Kind>& Kinds() {
  static const std::map<QByteArray, Kind> kinds = {
      {"delay", Kind::kDelay},       {"drop", Kind::kDrop},       {"duplicate", Kind::kDuplicate},
      {"truncate", Kind::kTruncate}, {"corrupt", Kind::kCorrupt}, {"kill", Kind::kKill},
      {"stop", Kind::kStop},         {"refuse", Kind::kRefuse},   {"slow", Kind::kSlow}};
  return kinds;
}

bool IsEndOfRule(char sign) { return sign == ';' || sign == '\n' || sign == '\0'; }
bool IsSpace(char sign) { return sign == ' ' || sign == '\t' || sign == '\r'; }
bool IsDigit(char sign) { return sign >= '0' && sign <= '9'; }

// Reads the text from its beginning to its end, and stops at the first thing that is wrong.
class Reader {
 public:
  explicit Reader(const QByteArray& text) : text_(text) {}

  std::optional<FaultRules> Read();
  QString GetError() const;

 private:
  // Each of these is false when the text goes on otherwise; the error is then set.
  bool ReadRule(FaultRules& rules);
  bool ReadSeed(FaultRules& rules);
  bool ReadWay(FaultRule& rule);
  bool ReadFault(FaultRule& rule);
  bool ReadValues(FaultRule& rule);
  bool ReadDelay(FaultRule& rule);
  bool ReadPercent(FaultRule& rule);
  bool ReadTime(quint64& ms);
  bool ReadNumber(const char* of_what, quint64 largest, quint64& number);
  bool Expect(const char* word);

  QByteArray PeekWord();
  void Skip(int count) { at_ += count; }
  char Peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
  void SkipSpace();
  bool Fail(const QString& expected);

  const QByteArray text_;
  int at_ = 0;
  QString expected_;
};

std::optional<FaultRules> Reader::Read() {
  FaultRules rules;
  for (SkipSpace(); at_ < text_.size(); SkipSpace()) {
    if (IsEndOfRule(Peek())) {
      ++at_;
    } else if (!ReadRule(rules)) {
      return std::nullopt;
    }
  }
  return rules;
}

bool Reader::ReadRule(FaultRules& rules) {
  const int begin = at_;
  FaultRule rule;
  const QByteArray task = PeekWord();
  if (task == "seed") {
    return ReadSeed(rules);
  }
  rule.task = QString::fromUtf8(task);
  if (task != "*" && CheckName("task", rule.task, kMaxTaskName).isError()) {
    return Fail("the name of a task, \"*\" or \"seed\"");
  }
  Skip(task.size());
  if (!Expect(":") || !ReadWay(rule) || !ReadFault(rule) || !ReadPercent(rule)) {
    return false;
  }
  rule.text = QString::fromUtf8(text_.mid(begin, at_ - begin).simplified());
  SkipSpace();
  if (!IsEndOfRule(Peek())) {
    return Fail("\";\" or the end");
  }
  rules.rules.push_back(std::move(rule));
  return true;
}

bool Reader::ReadSeed(FaultRules& rules) {
  quint64 seed = 0;
  if (!Expect("seed") || !ReadNumber("a number", kMostNumber, seed)) {
    return false;
  }
  rules.seed = seed;
  SkipSpace();
  return IsEndOfRule(Peek()) || Fail("\";\" or the end");
}

bool Reader::ReadWay(FaultRule& rule) {
  const QByteArray word = PeekWord();
  if (word == "to" || word == "from") {
    rule.way = word == "to" ? Way::kToTask : Way::kFromTask;
    Skip(word.size());
  }
  return true;
}

bool Reader::ReadFault(FaultRule& rule) {
  const QByteArray word = PeekWord();
  const auto known = Kinds().find(word);
  if (known == Kinds().end()) {
    return Fail(QString("%1delay, drop, duplicate, truncate, corrupt, kill, stop, refuse or slow")
                    .arg(rule.way == Way::kBoth ? "to, from, " : ""));
  }
  Skip(word.size());
  rule.kind = known->second;
  return ReadValues(rule);
}

bool Reader::ReadValues(FaultRule& rule) {
  switch (rule.kind) {
    case Kind::kDelay:
      return ReadDelay(rule);
    case Kind::kKill:
    case Kind::kStop:
      return Expect("after") && ReadNumber("a number of messages", kMostNumber, rule.least) &&
             Expect("messages");
    case Kind::kRefuse:
      return Expect("to") && Expect("start");
    case Kind::kSlow:
      return ReadNumber("a number of bytes", kMostNumber, rule.least) && Expect("bytes") &&
             Expect("per") && Expect("second");
    default:
      return true;
  }
}

bool Reader::ReadDelay(FaultRule& rule) {
  if (!ReadTime(rule.least)) {
    return false;
  }
  rule.most = rule.least;
  if (!text_.mid(at_).startsWith("..")) {
    return true;
  }
  Skip(2);
  const int place = at_;
  if (!ReadTime(rule.most)) {
    return false;
  }
  if (rule.most < rule.least) {
    at_ = place;
    return Fail("a time that is not before the other");
  }
  return true;
}

bool Reader::ReadPercent(FaultRule& rule) {
  SkipSpace();
  if (!IsDigit(Peek())) {
    return true;
  }
  quint64 percent = 0;
  if (!ReadNumber("a number from 1 to 100", kHundred, percent)) {
    return false;
  }
  rule.percent = static_cast<unsigned>(percent);
  return Expect("%");
}

bool Reader::ReadTime(quint64& ms) {
  if (!ReadNumber("a time", kMostMs, ms)) {
    return false;
  }
  if (text_.mid(at_).startsWith("ms")) {
    Skip(2);
    return true;
  }
  if (Peek() != 's') {
    return Fail("\"ms\" or \"s\"");
  }
  constexpr quint64 kMsPerSecond = 1000;
  ms *= kMsPerSecond;
  Skip(1);
  return true;
}

bool Reader::ReadNumber(const char* of_what, quint64 largest, quint64& number) {
  SkipSpace();
  int end = at_;
  while (end < text_.size() && IsDigit(text_[end])) {
    ++end;
  }
  bool fits = false;
  number = text_.mid(at_, end - at_).toULongLong(&fits);
  if (!fits || number > largest || number == 0) {
    return Fail(QString("%1, at least 1 and at most %2").arg(of_what).arg(largest));
  }
  at_ = end;
  return true;
}

bool Reader::Expect(const char* word) {
  const QByteArray there = PeekWord();
  const QByteArray wanted(word);
  // "1 messages" reads badly.
  const bool singular = wanted == "messages" && there == "message";
  if (there != wanted && !singular) {
    return Fail('"' + QString(word) + '"');
  }
  Skip(there.size());
  return true;
}

// A colon and a per cent sign are words of their own.
QByteArray Reader::PeekWord() {
  SkipSpace();
  int end = at_;
  while (end < text_.size() && !IsSpace(text_[end]) && !IsEndOfRule(text_[end]) &&
         text_[end] != ':' && text_[end] != '%') {
    ++end;
  }
  if (end == at_ && (Peek() == ':' || Peek() == '%')) {
    ++end;
  }
  return text_.mid(at_, end - at_);
}

void Reader::SkipSpace() {
  while (IsSpace(Peek())) {
    ++at_;
  }
}

bool Reader::Fail(const QString& expected) {
  expected_ = expected;
  return false;
}

// The line of the place, and a caret below it.
QString Reader::GetError() const {
  const int begin = at_ == 0 ? 0 : text_.lastIndexOf('\n', at_ - 1) + 1;
  const int end = text_.indexOf('\n', at_);
  const QString line = Escaped(text_.mid(begin, end < 0 ? -1 : end - begin));
  const auto before = Escaped(text_.mid(begin, at_ - begin)).size();
  return QString("RUNTIME_MANAGER_FAULTS is wrong, expected %1 here:\n  %2\n  %3^")
      .arg(expected_, line, QString(before, ' '));
}

}  // namespace

std::optional<FaultRules> ParseFaults(const QByteArray& text, QString* error) {
  Reader reader(text);
  auto rules = reader.Read();
  if (!rules) {
    *error = reader.GetError();
  }
  return rules;
}

}  // namespace RuntimeManager::host

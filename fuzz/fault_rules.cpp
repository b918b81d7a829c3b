// Any text as the rules of RUNTIME_MANAGER_FAULTS: either rules within their bounds, which read the
// same when they are written again, or an error that shows the place.
#include "fault_rules.h"

#include <QtCore/QStringList>
#include <algorithm>

#include "support/require.h"

namespace {

using RuntimeManager::host::FaultRule;
using RuntimeManager::host::FaultRules;
using RuntimeManager::host::ParseFaults;
using tarv::fuzz::Require;

constexpr quint64 kLongestDelayMs = 24ULL * 3600 * 1000;
// A time is read as a number of seconds that is at most that of the milliseconds.
constexpr quint64 kMostMs = kLongestDelayMs * 1000;

void CheckRule(const FaultRule& rule) {
  Require(!rule.task.isEmpty(), "a rule is for a task");
  Require(rule.percent >= 1 && rule.percent <= 100, "a share is from 1 to 100");
  Require(!rule.text.isEmpty() && !rule.text.contains('\n'), "a rule's text is one line");
  if (rule.kind == FaultRule::Kind::kDelay) {
    Require(rule.least >= 1 && rule.least <= rule.most && rule.most <= kMostMs, "a delay's times");
  }
}

bool AreSame(const FaultRule& a, const FaultRule& b) {
  return a.task == b.task && a.way == b.way && a.kind == b.kind && a.least == b.least &&
         a.most == b.most && a.percent == b.percent && a.text == b.text;
}

QByteArray Write(const FaultRules& rules) {
  QByteArray text;
  for (const FaultRule& rule : rules.rules) {
    text += rule.text.toUtf8() + ';';
  }
  return rules.seed ? text + "seed " + QByteArray::number(*rules.seed) : text;
}

void CheckRules(const FaultRules& rules) {
  std::for_each(rules.rules.begin(), rules.rules.end(), &CheckRule);
  QString error;
  const auto again = ParseFaults(Write(rules), &error);
  Require(again.has_value(), "what was written can be read");
  Require(again->seed == rules.seed, "the seed stays");
  Require(std::equal(again->rules.begin(), again->rules.end(), rules.rules.begin(),
                     rules.rules.end(), &AreSame),
          "the rules stay as they are");
}

// Three lines: what was expected, the line of the text, and a caret below the place.
void CheckError(const QString& error) {
  const QStringList lines = error.split('\n');
  Require(lines.size() == 3, "an error has three lines");
  Require(lines[0].startsWith("RUNTIME_MANAGER_FAULTS is wrong, expected "), "it says what it is");
  Require(lines[2].endsWith('^') && lines[2].trimmed() == "^", "a caret");
  Require(lines[2].size() <= lines[1].size() + 1, "the caret is below the text, or just behind");
  for (const QChar sign : error) {
    Require(sign == '\n' || sign >= ' ', "an error has no control characters");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  QString error;
  const auto rules =
      ParseFaults(QByteArray(reinterpret_cast<const char*>(data), static_cast<int>(size)), &error);
  Require(rules.has_value() == error.isEmpty(), "rules, or an error");
  if (rules) {
    CheckRules(*rules);
  } else {
    CheckError(error);
  }
  return 0;
}

// What RUNTIME_MANAGER_FAULTS says: which faults strike the messages of which tasks.
//
//   rules  = rule { (";" | line end) rule }
//   rule   = "seed" NUMBER  |  task ":" ["to" | "from"] fault [PERCENT "%"]
//   task   = NAME | "*"
//   fault  = "delay" TIME [".." TIME] | "drop" | "duplicate" | "truncate" | "corrupt"
//          | ("kill" | "stop") "after" NUMBER "messages"
//          | "refuse to start" | "slow" NUMBER "bytes per second"
//   TIME   = NUMBER ("ms" | "s")
#ifndef RUNTIME_MANAGER_HOST_FAULT_RULES_H
#define RUNTIME_MANAGER_HOST_FAULT_RULES_H

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <optional>
#include <vector>

namespace RuntimeManager::host {

struct FaultRule {
  enum class Way { kBoth, kToTask, kFromTask };
  enum class Kind {
    kDelay,
    kDrop,
    kDuplicate,
    kTruncate,
    kCorrupt,
    kKill,
    kStop,
    kRefuse,
    kSlow,
  };

  bool IsFor(const QString& name) const { return task == "*" || task == name; }
  bool Goes(Way one) const { return way == Way::kBoth || way == one; }

  QString task;
  Way way = Way::kBoth;
  Kind kind = Kind::kDrop;
  // Milliseconds of a delay, a number of messages, or bytes per second; `most` is for delays alone.
  quint64 least = 0;
  quint64 most = 0;
  unsigned percent = 100;
  QString text;  // as it was written
};

struct FaultRules {
  std::vector<FaultRule> rules;
  std::optional<quint64> seed;
};

// Nothing for a text that is wrong; `error` then says what was expected, and shows the place.
std::optional<FaultRules> ParseFaults(const QByteArray& text, QString* error);

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_FAULT_RULES_H

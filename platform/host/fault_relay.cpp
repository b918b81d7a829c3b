#include "fault_relay.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <map>
#include <mutex>
#include <random>
#include <utility>

#include "support.h"
#include "trace.h"

namespace RuntimeManager::host {
namespace {

using Kind = FaultRule::Kind;
using Way = FaultRule::Way;

constexpr unsigned kHundred = 100;

// Starts of a task in this process, this one included: each has faults of its own.
quint64 CountStart(const QString& task) {
  static std::mutex mutex;
  static std::map<QString, quint64> starts;
  const std::lock_guard lock(mutex);
  return ++starts[task];
}

quint64 RandomSeed() {
  constexpr quint64 kLargest = 999'999;
  std::random_device device;
  return device() % kLargest + 1;
}

// One number of several that does not depend on the platform (FNV-1a).
quint64 Mix(quint64 seed, const QByteArray& task, quint64 start, Way way) {
  const QByteArray text = QByteArray::number(seed) + ' ' + task + ' ' + QByteArray::number(start) +
                          (way == Way::kToTask ? " to" : " from");
  quint64 hash = 14695981039346656037ULL;
  for (const char sign : text) {
    hash = (hash ^ static_cast<unsigned char>(sign)) * 1099511628211ULL;
  }
  return hash;
}

// The rules about this task, with a seed.
FaultRules RulesFor(const QString& task, FaultRules all) {
  FaultRules rules;
  std::copy_if(all.rules.begin(), all.rules.end(), std::back_inserter(rules.rules),
               [&task](const FaultRule& rule) { return rule.IsFor(task); });
  if (rules.rules.empty()) {
    return rules;
  }
  rules.seed = all.seed ? *all.seed : RandomSeed();
  if (!all.seed) {
    Warn(QString("RUNTIME_MANAGER_FAULTS strikes the task '%1'; \"seed %2\" in it makes the same "
                 "faults again")
             .arg(task)
             .arg(*rules.seed));
  }
  return rules;
}

// Those of the environment that concern the task.
FaultRules ReadRules(const QString& task, Error* error) {
  const QByteArray text = Variable("RUNTIME_MANAGER_FAULTS");
  if (text.isEmpty()) {
    return {};
  }
  QString wrong;
  auto all = ParseFaults(text, &wrong);
  if (!all) {
    *error = {Error::kInvalidArgument,
              QString("the task '%1' cannot be started: %2").arg(task, wrong)};
    return {};
  }
  return RulesFor(task, std::move(*all));
}

// The rule that refuses this start, or null.
const FaultRule* FindRefusal(const FaultRules& rules, quint64 seed) {
  std::mt19937_64 random(seed);
  for (const FaultRule& rule : rules.rules) {
    if (rule.kind == Kind::kRefuse && random() % kHundred < rule.percent) {
      return &rule;
    }
  }
  return nullptr;
}

}  // namespace

std::shared_ptr<FaultRelay> FaultRelay::ForStart(const QString& task, Error* error) {
  FaultRules rules = ReadRules(task, error);
  if (rules.rules.empty()) {
    return nullptr;
  }
  const quint64 seed = Mix(*rules.seed, task.toUtf8(), CountStart(task), Way::kBoth);
  rules.seed = seed;
  if (const FaultRule* const refusal = FindRefusal(rules, seed)) {
    TraceFault(task, Direction::kSend, refusal->text);
    *error = {Error::kStartFailed,
              QString("the task '%1' cannot be started: RUNTIME_MANAGER_FAULTS says \"%2\"")
                  .arg(task, refusal->text)};
    return nullptr;
  }
  return std::make_shared<FaultRelay>(task, std::move(rules));
}

FaultRelay::FaultRelay(QString task, FaultRules rules)
    : task_(std::move(task)), rules_(std::move(rules)) {
  for (const FaultRule& rule : rules_.rules) {
    if (rule.kind == Kind::kKill || rule.kind == Kind::kStop) {
      counts_.push_back({rule});
    }
  }
}

int FaultRelay::Interpose(UniqueFd* connection) {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0) {
    return errno;
  }
  to_task_ = std::exchange(*connection, UniqueFd(ends[0]));
  to_starter_.Reset(ends[1]);
  lane_to_task_ = MakeLane(Way::kToTask, to_starter_.Get(), to_task_.Get());
  lane_from_task_ = MakeLane(Way::kFromTask, to_task_.Get(), to_starter_.Get());
  return 0;
}

std::unique_ptr<FaultLane> FaultRelay::MakeLane(Way way, int from, int to) {
  FaultLane::Config config;
  config.task = task_;
  config.way = way;
  std::copy_if(rules_.rules.begin(), rules_.rules.end(), std::back_inserter(config.rules),
               [way](const FaultRule& rule) { return rule.Goes(way); });
  config.seed = Mix(*rules_.seed, {}, 0, way);
  config.on_delivered = [this, way] { OnDelivered(way); };
  return std::make_unique<FaultLane>(std::move(config), from, to);
}

bool FaultRelay::DrainTask() { return lane_from_task_ != nullptr && lane_from_task_->Drain(); }

void FaultRelay::OnDelivered(Way way) {
  for (Count& count : counts_) {
    if (count.rule.Goes(way) && ++count.seen == count.rule.least) {
      Strike(count.rule);
    }
  }
}

void FaultRelay::Strike(const FaultRule& rule) {
  std::mt19937_64 random(*rules_.seed + rule.least);
  if (random() % kHundred >= rule.percent || !signal_) {
    return;
  }
  TraceFault(task_, Direction::kSend, rule.text);
  signal_(rule.kind == Kind::kKill ? SIGKILL : SIGSTOP);
}

}  // namespace RuntimeManager::host

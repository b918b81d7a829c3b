// Faults on the workstation: RUNTIME_MANAGER_FAULTS has them strike the messages of a task.
#ifndef RUNTIME_MANAGER_HOST_FAULT_RELAY_H
#define RUNTIME_MANAGER_HOST_FAULT_RELAY_H

#include <RuntimeManager/Error.h>

#include <QtCore/QString>
#include <functional>
#include <memory>
#include <vector>

#include "fault_lane.h"
#include "fault_rules.h"
#include "unique_fd.h"

namespace RuntimeManager::host {

// Stands between a starter and its task: the starter gets one end of a connection that is made here,
// and everything passes through this object on its way. So nothing else of the host knows of
// faults, and where there are none there is no relay. Belongs to the thread that makes it.
class FaultRelay {
 public:
  // For one start of a task; null when no rule is about it. An error when the rules are wrong, or
  // refuse the start.
  static std::shared_ptr<FaultRelay> ForStart(const QString& task, Error* error);

  FaultRelay(QString task, FaultRules rules);
  ~FaultRelay() = default;
  FaultRelay(const FaultRelay&) = delete;
  FaultRelay& operator=(const FaultRelay&) = delete;

  // Puts another connection in the place of this one to the task. An error number, 0 for none.
  int Interpose(UniqueFd* connection);
  // How to signal the task, once it runs.
  void SetSignal(std::function<void(int signal)> signal) { signal_ = std::move(signal); }
  // Delivers what the task has sent. As FaultLane::Drain.
  bool DrainTask();

 private:
  // A rule that counts messages.
  struct Count {
    FaultRule rule;
    quint64 seen = 0;
  };

  std::unique_ptr<FaultLane> MakeLane(FaultRule::Way way, int from, int to);
  void OnDelivered(FaultRule::Way way);
  void Strike(const FaultRule& rule);

  const QString task_;
  const FaultRules rules_;
  std::vector<Count> counts_;
  std::function<void(int signal)> signal_;
  UniqueFd to_task_;
  UniqueFd to_starter_;
  // They use the descriptors, and go first.
  std::unique_ptr<FaultLane> lane_to_task_;
  std::unique_ptr<FaultLane> lane_from_task_;
};

}  // namespace RuntimeManager::host

#endif  // RUNTIME_MANAGER_HOST_FAULT_RELAY_H

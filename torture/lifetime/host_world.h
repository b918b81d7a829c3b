// The runtime manager's Task and TaskMessaging with nothing above them, and real processes.
#ifndef TORTURE_LIFETIME_HOST_WORLD_H
#define TORTURE_LIFETIME_HOST_WORLD_H

#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>

#include <memory>
#include <vector>

#include "course.h"
#include "life.h"

namespace tarv::torture {

// A task, the channel to it, and what both still owe.
struct Worker {
  std::unique_ptr<RuntimeManager::Task> task;
  std::unique_ptr<RuntimeManager::TaskMessaging> channel;
  int task_owes = 0;  // completions; none once it is destroyed
  int echoes_owed = 0;
  bool takes_texts = false;  // by dataReceived
  bool has_started = false;
  bool is_asked_to_stop = false;
  bool shall_leave = false;
  int finished = 0;
  int disconnected = 0;
};

class HostWorld : public Life {
 public:
  static const std::vector<Place> kPlaces;
  static const std::vector<Deed<HostWorld>> kDeeds;
  static const std::vector<Deed<HostWorld>> kEnds;

  HostWorld() = default;

  void UseEverything() override;
  void ArriveEverywhere() override;

  // ---- Moves, for all workers

  void DropTasks();
  void DropChannels();
  void Stop(RuntimeManager::Task::StopFlags flags);
  void LetTasksLeave();
  void RunNestedLoop();
  void BeginAnew();

 private:
  std::vector<Move> GetSteps() override;
  void Turn(const Move& move) override;
  void EndEverything() override;

  Worker& NewWorker(const char* name);
  void Start(Worker& worker);
  void StopOne(Worker& worker, RuntimeManager::Task::StopFlags flags);
  void Open(Worker& worker);
  void ListenForMessages(Worker& worker);
  void Send(Worker& worker);
  bool IsSettled() const;
  static void ProcessEvents();
  void HearOfTask(const Worker& worker, const char* place);
  void HearOfChannel(const Worker& worker, const char* place);
  // What a completion gets.
  RuntimeManager::Task::Completion Completion(Worker& worker, const char* well, const char* badly,
                                              const char* end);

  std::vector<std::unique_ptr<Worker>> workers_;
};

}  // namespace tarv::torture

#endif  // TORTURE_LIFETIME_HOST_WORLD_H

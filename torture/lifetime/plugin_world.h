// What a plug-in has: managers, clients of tasks, the server of its own task, an opener of URIs; on a
// platform of which the world decides every move.
#ifndef TORTURE_LIFETIME_PLUGIN_WORLD_H
#define TORTURE_LIFETIME_PLUGIN_WORLD_H

#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <tarv/manager_wrapper.h>
#include <vorpc/client.h>
#include <vorpc/server.h>

#include <QPointer>
#include <memory>
#include <string>
#include <vector>

#include "course.h"
#include "life_in_loop.h"

namespace tarv::torture {

struct TaskOfPlugin {
  std::shared_ptr<vorpc::IClient> client;
  QPointer<RuntimeManager::Task> task;
  QPointer<RuntimeManager::TaskMessaging> channel;
  bool is_gone = false;  // the client
  int outcomes = 0;
  int ends = 0;
};

class PluginWorld : public LifeInLoop {
 public:
  static const std::vector<Place> kPlaces;
  static const std::vector<Deed<PluginWorld>> kDeeds;
  static const std::vector<Deed<PluginWorld>> kEnds;

  PluginWorld();

  void UseEverything() override;
  void ArriveEverywhere() override;

  // ---- Moves

  void DropClients();
  void DropServer();
  void DropIntents() { intents_.reset(); }
  void DropFirstManager();
  void DropManagers();
  void LoseTasks();
  void CompleteStops();
  void MakeAnew();
  static void UseForeignHandles();

 private:
  std::vector<Move> GetSteps() override;
  void EndEverything() override;

  static std::unique_ptr<ManagerWrapper> NewManager();
  TaskOfPlugin& StartTask(const std::unique_ptr<ManagerWrapper>& manager);
  void Subscribe(TaskOfPlugin& task);
  static void CompleteStart(TaskOfPlugin& task, bool well);
  void Ask(TaskOfPlugin& task);
  static void AnswerAsTask(const TaskOfPlugin& task);
  void RunServer();
  void AskServer() const;
  void GetIntents();
  bool MayAnswerUris() const { return service_of_intents_ == services_; }
  void OpenUri();
  void HearOf(const TaskOfPlugin& task, const char* place);
  void HearOfServer(const char* place);

  std::unique_ptr<ManagerWrapper> first_;
  std::unique_ptr<ManagerWrapper> second_;
  std::unique_ptr<IntentManager> intents_;
  int services_ = 1;  // the ended ones and this one
  int service_of_intents_ = 0;
  std::shared_ptr<vorpc::IServer> server_;
  bool is_server_gone_ = false;
  QPointer<RuntimeManager::TaskMessaging> server_channel_;
  std::vector<std::unique_ptr<TaskOfPlugin>> tasks_;
};

}  // namespace tarv::torture

#endif  // TORTURE_LIFETIME_PLUGIN_WORLD_H

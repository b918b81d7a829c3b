// Everything that the C interface has, on a platform of which the world decides every move.
#ifndef TORTURE_LIFETIME_SERVICE_WORLD_H
#define TORTURE_LIFETIME_SERVICE_WORLD_H

#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <tarv/tarv_capi.h>

#include <QPointer>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "course.h"
#include "life_in_loop.h"

namespace tarv::torture {

// Every callback that the C interface makes.
namespace place {
inline constexpr char kClientStarted[] = "client started";
inline constexpr char kClientNotStarted[] = "client not started";
inline constexpr char kClientMessage[] = "client message";
inline constexpr char kClientDisconnect[] = "client disconnect";
inline constexpr char kClientRelease[] = "client release";
inline constexpr char kServerStarted[] = "server started";
inline constexpr char kServerMessage[] = "server message";
inline constexpr char kServerRelease[] = "server release";
inline constexpr char kUri[] = "uri";
inline constexpr char kUriRelease[] = "uri release";
inline constexpr char kIntent[] = "intent";
}  // namespace place

// The slots of one object, as a caller has them: what was called, and whether that was right.
struct Slots {
  std::string name;
  bool is_taken = false;
  bool ends_with_process = false;  // as an intent's
  int started = 0;
  int disconnected = 0;
  int answered = 0;
  int released = 0;
  class ServiceWorld* world = nullptr;
};

struct OneClient {
  _TARVRpcClientRef* handle = nullptr;
  QPointer<RuntimeManager::Task> task;
  QPointer<RuntimeManager::TaskMessaging> channel;
  Slots* slots = nullptr;
};

class ServiceWorld : public LifeInLoop {
 public:
  static const std::vector<Place> kPlaces;
  static const std::vector<Deed<ServiceWorld>> kDeeds;
  static const std::vector<Deed<ServiceWorld>> kEnds;

  ServiceWorld();
  ~ServiceWorld() override;
  ServiceWorld(const ServiceWorld&) = delete;
  ServiceWorld& operator=(const ServiceWorld&) = delete;

  // Every entry with this client's, the server's and the intents' handles, dead or alive.
  void UseEverything() override;
  void ArriveEverywhere() override;

  // ---- Moves, of which actions, ends and lives are made

  OneClient& NewClient();
  void Start(OneClient& client);
  void CompleteStart(OneClient& client, bool well);
  void CompleteStops();
  void Send(OneClient& client, const char* text);
  void LoseClient(OneClient& client);
  void RunServer();
  void SendToServer(const char* text);
  void OpenUri();
  void AnswerUri();
  void RegisterIntent();
  void InvokeIntent();
  void AnswerIntents();
  void ReleaseClient(OneClient& client);
  void ReleaseManager() const { root.Release(manager); }
  void ReleaseClients();
  void LoseClients();
  void MakeAnew();
  // Every entry with handles of other types.
  void UseForeignHandles();

  TARVProcTable root{};
  TARVRpcClientProcTable table{};
  TARVRpcServerProcTable server_table{};
  TARVIntentManagerProcTable intent_table{};
  _TARVManagerRef* manager = nullptr;
  _TARVRpcServerRef* server = nullptr;
  _TARVIntentManagerRef* intents = nullptr;
  std::vector<std::unique_ptr<OneClient>> clients;

 private:
  friend struct Hearing;

  std::vector<Move> GetSteps() override;
  void EndEverything() override;
  void ArriveInNestedLoop() override;

  void UseAsClient(_TARVRpcClientRef* handle);
  void UseAsServer(_TARVRpcServerRef* handle);
  void UseAsIntents(_TARVIntentManagerRef* handle);
  void UseAsManager(_TARVManagerRef* handle);
  void ExpectRefused(bool is_refused);
  Slots& NewSlots(const std::string& name);
  void HearOf(Slots& slots, const char* place);
  void HearText(Slots& slots, const char* place, const char* text,
                const std::function<void()>& unlock);
  void FaultOf(const Slots& slots, const std::string& what) { Fault(slots.name + ": " + what); }

  std::vector<std::unique_ptr<Slots>> slots_;
  std::vector<TARVReplyIntentSlot> replies_;
  QPointer<RuntimeManager::TaskMessaging> server_channel_;
};

}  // namespace tarv::torture

#endif  // TORTURE_LIFETIME_SERVICE_WORLD_H

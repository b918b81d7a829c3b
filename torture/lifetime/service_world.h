// A life of everything that the C interface has, on a platform of which the world decides every move.
//
// The life is a row of steps in an order that never changes; between two steps the event loop turns.
// What changes is an action, taken inside one of the callbacks. Nothing in the life asks whether the
// action has ended what a step is about, so each step is a use after the end, too.
#ifndef TORTURE_LIFETIME_SERVICE_WORLD_H
#define TORTURE_LIFETIME_SERVICE_WORLD_H

#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <QPointer>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace tarv::torture {

// Every callback that the C interface makes.
enum class Callback {
  kClientStarted,
  kClientNotStarted,
  kClientMessage,
  kClientDisconnect,
  kClientRelease,
  kServerStarted,
  kServerMessage,
  kServerRelease,
  kUri,
  kUriRelease,
  kIntent,
};
constexpr Callback kLastCallback = Callback::kIntent;
const char* NameOf(Callback callback);

// What the platform does with an exception of a callback: it goes on.
void Survive(const std::function<void()>& step);

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

class ServiceWorld {
 public:
  ServiceWorld();
  ~ServiceWorld();
  ServiceWorld(const ServiceWorld&) = delete;
  ServiceWorld& operator=(const ServiceWorld&) = delete;

  // Takes `action` the first time that `callback` comes; each time, if `always`.
  void Plan(Callback callback, std::function<void()> action, bool always = false);
  // Plays the life in an event loop, and then ends what is left in the order of `ends`.
  void Live(const std::vector<std::function<void()>>& ends);
  bool HasActed() const { return actions_ > 0; }
  // What was not as it is promised, a line for each.
  const std::vector<std::string>& GetFaults() const { return faults_; }

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
  void ReleaseClient(OneClient& client) const { table.Release(client.handle); }
  void ReleaseManager() const { root.Release(manager); }
  // Every entry with this client's, the server's and the intents' handles, dead or alive.
  void UseEverything();
  // Every entry with handles of other types.
  void UseForeignHandles();
  // A nested event loop in which everything that may arrive does.
  void RunNestedLoop();
  void ArriveEverywhere();

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

  Slots& NewSlots(const std::string& name);
  void Hear(Slots& slots, Callback callback);
  void HearText(Slots& slots, Callback callback, const char* text,
                const std::function<void()>& unlock);
  void Fault(const Slots& slots, const std::string& what);
  std::vector<std::function<void()>> StepsOfALife();
  void RunInLoop(const std::function<void()>& step);
  void CheckEnd();

  std::vector<std::unique_ptr<Slots>> slots_;
  std::vector<TARVReplyIntentSlot> replies_;
  QPointer<RuntimeManager::TaskMessaging> server_channel_;
  std::optional<Callback> planned_;
  std::function<void()> action_;
  bool always_ = false;
  int actions_ = 0;
  int depth_ = 0;
  std::vector<std::string> faults_;
};

}  // namespace tarv::torture

#endif  // TORTURE_LIFETIME_SERVICE_WORLD_H

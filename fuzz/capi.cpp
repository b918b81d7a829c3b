// The C interface, driven by a script of calls with valid, stale, null and foreign handles and with
// slots of any size, on a platform of which the script decides every move: results are those that
// the header promises, callbacks come in their order and never after the release, each release
// comes once, texts that are locked stay, and nothing is left of the platform's objects.
#include <RuntimeManager/IntentsInvoker.h>
#include <RuntimeManager/RuntimeDispatcher.h>
#include <RuntimeManager/Task.h>
#include <RuntimeManager/TaskMessaging.h>
#include <cw/encodable_value.h>
#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <QEvent>
#include <QPointer>
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/capi_listeners.h"
#include "support/require.h"
#include "support/script.h"
#include "support/values.h"

namespace {

using RuntimeManager::Error;
using RuntimeManager::IntentsInvoker;
using RuntimeManager::Journal;
using RuntimeManager::RuntimeDispatcher;
using RuntimeManager::Task;
using RuntimeManager::TaskMessaging;
using tarv::fuzz::Listeners;
using tarv::fuzz::LockedText;
using tarv::fuzz::MakeValue;
using tarv::fuzz::Require;
using tarv::fuzz::Script;

constexpr int kMostNesting = 6;

class World final : public Listeners {
 public:
  explicit World(Script& script) : script_(script) {
    TARVProcTableLoad(&root_, sizeof(root_));
    root_.RpcClientProcTableLoad(&clients_, sizeof(clients_));
    root_.RpcServerProcTableLoad(&servers_, sizeof(servers_));
    root_.IntentManagerProcTableLoad(&intents_, sizeof(intents_));
    manager_ = root_.Initialize();
    all_.push_back(manager_);
  }

  void Run() {
    while (script_.HasMore()) {
      Step();
    }
    End();
  }

 private:
  using Action = void (World::*)();

  void Step() {
    static constexpr std::array<Action, 22> kActions{
        &World::LoadTables,   &World::CreateClient, &World::StartTask,     &World::Unlock,
        &World::Send,         &World::Release,      &World::GetServer,     &World::RunServer,
        &World::SendByServer, &World::GetIntents,   &World::OpenUri,       &World::RegisterIntent,
        &World::Release,      &World::ReleaseAll,   &World::CompleteStart, &World::CompleteStop,
        &World::Finish,       &World::Disconnect,   &World::Receive,       &World::ReceiveText,
        &World::ReplyToUri,   &World::Invoke};
    const std::size_t choice = script_.Below(kActions.size() + 2);
    if (choice < kActions.size()) {
      (this->*kActions[choice])();
    } else if (choice == kActions.size()) {
      ReplyToIntent();
    } else if (depth_ == 0) {
      DeleteLater();
    }
  }

  void Nest() override {
    if (depth_ < kMostNesting && script_.HasMore() && script_.Flag()) {
      ++depth_;
      Step();
      --depth_;
    }
  }

  // ---- Arguments ----

  // A handle that is right, perhaps stale, or of another kind, or none, or one that never was.
  template <class Ref>
  Ref Pick(const std::vector<void*>& right) {
    const std::size_t choice = script_.Below(16);
    if (choice == 0) {
      return nullptr;
    }
    if (choice == 1) {
      Ref foreign;
      const auto number = script_.Number<std::uintptr_t>();
      std::memcpy(&foreign, &number, sizeof(number));
      return foreign;
    }
    const std::vector<void*>& from = choice == 2 || right.empty() ? all_ : right;
    return from.empty() ? nullptr : reinterpret_cast<Ref>(from[script_.Below(256) % from.size()]);
  }
  _TARVManagerRef* PickManager() { return Pick<_TARVManagerRef*>({manager_}); }
  _TARVRpcClientRef* PickClient() { return Pick<_TARVRpcClientRef*>(client_handles_); }
  _TARVRpcServerRef* PickServer() { return Pick<_TARVRpcServerRef*>(server_handles_); }
  _TARVIntentManagerRef* PickIntents() { return Pick<_TARVIntentManagerRef*>(intent_handles_); }

  template <class Ref>
  void Keep(Ref handle, std::vector<void*>& among) {
    for (auto* const list : {&among, &all_}) {
      if (handle != nullptr && std::find(list->begin(), list->end(), handle) == list->end()) {
        list->push_back(handle);
      }
    }
  }

  static bool IsAmong(const std::vector<void*>& handles, void* handle) {
    return std::find(handles.begin(), handles.end(), handle) != handles.end();
  }

  // A text without NUL; null at times, empty at times.
  const char* PickText() {
    if (script_.Below(16) == 0) {
      return nullptr;
    }
    text_ = script_.Text();
    text_ = text_.substr(0, text_.find('\0'));
    return text_.c_str();
  }

  // Mostly whole slots, else any size; what lies beyond is not to be read.
  std::size_t PickSize(std::size_t whole) {
    return script_.Below(4) != 0 ? whole : script_.Below(whole + 16);
  }

  // ---- The entries ----

  // A table of any size is filled so far and no further; the size itself is told in any case.
  void LoadTables() {
    switch (script_.Below(4)) {
      case 0:
        LoadTable<TARVProcTable>(&TARVProcTableLoad);
        break;
      case 1:
        LoadTable<TARVRpcClientProcTable>(root_.RpcClientProcTableLoad);
        break;
      case 2:
        LoadTable<TARVRpcServerProcTable>(root_.RpcServerProcTableLoad);
        break;
      default:
        LoadTable<TARVIntentManagerProcTable>(root_.IntentManagerProcTableLoad);
    }
  }

  template <class Table>
  void LoadTable(QuarnResult (*load)(Table*, std::size_t)) {
    alignas(8) std::array<unsigned char, sizeof(Table) + 16> memory{};
    memory.fill(0xa5);
    const std::size_t size = script_.Below(sizeof(Table) + 1);
    auto* const table = reinterpret_cast<Table*>(memory.data());
    const bool is_null = script_.Below(8) == 0;
    const QuarnResult result = load(is_null ? nullptr : table, size);
    Require(result == (is_null ? QUARN_RESULT_INVALID_ARGUMENT : QUARN_RESULT_SUCCESS),
            "a table is filled, unless there is none");
    const std::size_t end = is_null ? 0 : std::max(size, sizeof(std::size_t));
    Require(std::all_of(memory.begin() + static_cast<std::ptrdiff_t>(end), memory.end(),
                        [](unsigned char byte) { return byte == 0xa5; }),
            "nothing is written beyond the size");
    Require(is_null || table->size == size, "the size is told");
    for (std::size_t at = sizeof(std::size_t); at + sizeof(void*) <= end; at += sizeof(void*)) {
      CheckEntry(memory.data() + at);
    }
  }

  static void CheckEntry(const unsigned char* bytes) {
    std::uintptr_t entry = 0;
    std::memcpy(&entry, bytes, sizeof(entry));
    Require(entry != 0 && entry != 0xa5a5a5a5a5a5a5a5, "an entry that the size covers is there");
  }

  void CreateClient() {
    _TARVManagerRef* const manager = PickManager();
    auto* const client = root_.CreateRpcClient(manager);
    Require((client != nullptr) == (manager == manager_), "a client of the manager");
    Require(client == nullptr || idle_.insert(client).second, "a handle is new");
    Keep(client, client_handles_);
  }

  void StartTask() {
    _TARVRpcClientRef* const client = PickClient();
    const char* const name = script_.Below(8) == 0 ? nullptr : "worker";
    const char* const path = script_.Below(8) == 0 ? "" : "/libs";
    TARVRpcClientSlots slots = MakeClientSlots(client, PickSize(sizeof(slots)));
    const bool listens = script_.Below(8) != 0;
    const bool is_valid = name != nullptr && *path != '\0';
    const bool is_idle = idle_.count(client) == 1;
    const std::size_t tasks = Task::GetAll().size();
    const QuarnResult result = clients_.StartTask(client, name, path, listens ? &slots : nullptr);
    const bool has_started = result == QUARN_RESULT_SUCCESS;
    Require(is_valid || result == QUARN_RESULT_INVALID_ARGUMENT, "wrong texts are refused");
    Require(has_started ? is_valid && is_idle : !is_valid || !is_idle || is_releasing_,
            "a client that is there starts, and only once");
    Require((Task::GetAll().size() > tasks) == has_started, "a start makes a task");
    if (has_started) {
      idle_.erase(client);
      tasks_.emplace_back(Task::GetAll().back());
    }
    if (!has_started || !listens) {
      Disown(Count() - 1);
    }
  }

  void Unlock() {
    CheckTexts();
    if (GetTexts().empty() || script_.Below(4) == 0) {
      const std::size_t chunk = script_.Byte();
      _TARVRpcClientRef* const client = PickClient();
      clients_.UnlockResources(client, chunk);
      ForgetText(client, chunk);
      return;
    }
    const LockedText locked = GetTexts()[script_.Below(256) % GetTexts().size()];
    const std::array<std::function<void()>, 2> unlocks{
        [this, &locked] {
          clients_.UnlockResources(static_cast<_TARVRpcClientRef*>(locked.handle), locked.chunk);
        },
        [this, &locked] {
          servers_.UnlockResources(static_cast<_TARVRpcServerRef*>(locked.handle), locked.chunk);
        }};
    const std::size_t right = IsAmong(client_handles_, locked.handle) ? 0 : 1;
    unlocks.at(1 - right)();
    CheckTexts();  // the entry for the other kind does nothing
    unlocks.at(right)();
    ForgetText(locked.handle, locked.chunk);
  }

  void Send() {
    _TARVRpcClientRef* const client = PickClient();
    const char* const text = PickText();
    const QuarnResult result = clients_.SendMessage(client, text);
    Require(text != nullptr || result == QUARN_RESULT_REFUSED, "a null message is refused");
    Require(result == QUARN_RESULT_REFUSED ||
                (result == QUARN_RESULT_SUCCESS && IsAmong(client_handles_, client)),
            "sent by a client, or refused");
  }

  void Release() {
    _TARVRpcClientRef* const client = PickClient();
    clients_.Release(client);
    idle_.erase(client);
    Require(clients_.SendMessage(client, "late") == QUARN_RESULT_REFUSED, "the handle is dead");
  }

  void GetServer() {
    _TARVManagerRef* const manager = PickManager();
    auto* const server = root_.GetRpcServer(manager);
    Require((server != nullptr) == (manager == manager_), "the manager's server");
    Keep(server, server_handles_);
  }

  // The slots of a later call are neither used nor released.
  void RunServer() {
    _TARVRpcServerRef* const server = PickServer();
    TARVRpcServerSlots slots = MakeServerSlots(server, PickSize(sizeof(slots)));
    const std::size_t index = Count() - 1;
    const std::size_t channels = TaskMessaging::GetAll().size();
    servers_.Run(server, &slots);
    if (TaskMessaging::GetAll().size() == channels) {
      Disown(index);
    }
  }

  void SendByServer() {
    _TARVRpcServerRef* const server = PickServer();
    const char* const text = PickText();
    if (text != nullptr) {
      const QuarnResult result = servers_.SendMessage(server, text);
      Require(result == QUARN_RESULT_REFUSED ||
                  (result == QUARN_RESULT_SUCCESS && IsAmong(server_handles_, server)),
              "sent by a server, or refused");
    }
  }

  void GetIntents() {
    _TARVManagerRef* const manager = PickManager();
    auto* const intents = root_.GetIntentManager(manager);
    Require((intents != nullptr) == (manager == manager_), "the manager's intent manager");
    Keep(intents, intent_handles_);
    // While the manager lets go of all, what is there may be next.
    intents_there_ = is_releasing_ ? nullptr : intents != nullptr ? intents : intents_there_;
  }

  void OpenUri() {
    _TARVIntentManagerRef* const intents = PickIntents();
    const char* const uri = PickText();
    TARVOpenUriSlot slot = MakeUriSlot(intents, PickSize(sizeof(slot)));
    const std::size_t index = Count() - 1;
    CheckTaken(index, uri, intents, intents_.OpenUri(intents, uri, &slot));
  }

  void RegisterIntent() {
    _TARVIntentManagerRef* const intents = PickIntents();
    const char* const name = PickText();
    TARVRegisterIntentSlot slot = MakeIntentSlot(intents, PickSize(sizeof(slot)));
    const std::size_t index = Count() - 1;
    CheckTaken(index, name, intents, intents_.RegisterIntent(intents, name, &slot));
  }

  // A slot is taken only with success, which only a text for an intent manager has.
  void CheckTaken(std::size_t index, const char* text, _TARVIntentManagerRef* intents,
                  QuarnResult result) {
    Require((text == nullptr) == (result == QUARN_RESULT_INVALID_ARGUMENT), "null is refused");
    Require(result != QUARN_RESULT_SUCCESS || IsAmong(intent_handles_, intents),
            "a handle of another kind is refused");
    Require(text == nullptr || intents_there_ == nullptr || intents != intents_there_ ||
                result == QUARN_RESULT_SUCCESS,
            "the intent manager that is there takes a slot");
    if (result != QUARN_RESULT_SUCCESS) {
      Disown(index);
    }
  }

  // The clients that are there when it begins are not there when it ends.
  void ReleaseAll() {
    CheckTexts();
    _TARVManagerRef* const manager = PickManager();
    const std::set<const void*> before = manager == manager_ ? idle_ : std::set<const void*>();
    const bool was_releasing = std::exchange(is_releasing_, true);
    const bool ends_intents = manager == manager_;
    intents_there_ = ends_intents ? nullptr : intents_there_;
    root_.Release(manager);
    // What a callback has made meanwhile may have gone again.
    intents_there_ = ends_intents ? nullptr : intents_there_;
    is_releasing_ = was_releasing;
    for (const void* const client : before) {
      idle_.erase(client);
    }
  }

  // ---- What the platform does ----

  Task* PickTask() {
    return tasks_.empty() ? nullptr : tasks_[script_.Below(256) % tasks_.size()].data();
  }
  TaskMessaging* PickChannel() {
    const auto& all = TaskMessaging::GetAll();
    return all.empty() ? nullptr : all[script_.Below(256) % all.size()].data();
  }
  Error MakeError() {
    if (script_.Flag()) {
      return {};
    }
    return {script_.Flag() ? -32001 : 5, QString::fromStdString(script_.Text())};
  }

  // A completion outlives its task, and may come more than once.
  void CompleteStart() {
    if (Task* const task = PickTask(); task != nullptr && task->complete_start) {
      const Task::Completion complete = task->complete_start;
      complete(MakeError());
    }
  }
  void CompleteStop() {
    if (Task* const task = PickTask(); task != nullptr && task->complete_stop) {
      const Task::Completion complete = task->complete_stop;
      complete(MakeError());
    }
  }
  void Finish() {
    if (Task* const task = PickTask()) {
      Q_EMIT task->finished(MakeError());
    }
  }
  void Disconnect() {
    if (TaskMessaging* const channel = PickChannel()) {
      Q_EMIT channel->disconnected(MakeError());
    }
  }
  void Receive() {
    if (TaskMessaging* const channel = PickChannel()) {
      const QString key = script_.Below(8) == 0 ? "other" : "data";
      const QString text = QString::fromStdString(script_.Text());
      Q_EMIT channel->messageReceived({{key, script_.Below(8) == 0 ? QJsonValue(1) : text}});
    }
  }
  void ReceiveText() {
    if (TaskMessaging* const channel = PickChannel()) {
      QByteArray text = QByteArray::fromStdString(script_.Text());
      Q_EMIT channel->dataReceived(text);
    }
  }
  void ReplyToUri() {
    if (IntentsInvoker* const invoker = IntentsInvoker::GetLatest();
        invoker != nullptr && !intent_handles_.empty() && IsInvokerAlive()) {
      Q_EMIT invoker->replyReceived({}, MakeError());
    }
  }
  // The journal tells which was the last to happen.
  bool IsInvokerAlive() {
    for (const std::string& line : Journal::Get().Take()) {
      if (line == "IntentsInvoker") {
        is_invoker_alive_ = true;
      } else if (line == "~IntentsInvoker") {
        is_invoker_alive_ = false;
      }
    }
    return is_invoker_alive_;
  }

  void Invoke() {
    auto& handlers = RuntimeDispatcher::instance()->handlers;
    if (handlers.empty()) {
      return;
    }
    const auto found = std::next(handlers.begin(),
                                 static_cast<std::ptrdiff_t>(script_.Below(256) % handlers.size()));
    const auto handler = found->second;
    invocations_.push_back(std::make_shared<int>(0));
    const std::weak_ptr<int> replies = invocations_.back();
    handler({}, [replies](const QJsonObject&) {
      if (const auto count = replies.lock()) {
        ++*count;
      }
    });
  }

  void ReplyToIntent() {
    if (replies_.empty()) {
      return;
    }
    std::swap(replies_[script_.Below(256) % replies_.size()], replies_.back());
    const TARVReplyIntentSlot reply = replies_.back();
    replies_.pop_back();
    if (script_.Flag()) {
      const quarn::Buffer bytes = MakeValue(script_, 2).Serialize();
      reply.callback(reply.user_data, bytes.GetData(), bytes.GetSize());
    } else if (script_.Flag()) {
      const std::vector<std::uint8_t> bytes = script_.Bytes();
      reply.callback(reply.user_data, bytes.data(), bytes.size());
    }
    reply.release(reply.user_data);
  }

  void DeleteLater() { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); }

  // ---- The end ----

  // Registered intents stay until the platform lets them go, which this one does here.
  void End() {
    depth_ = kMostNesting;
    while (!replies_.empty()) {
      const TARVReplyIntentSlot reply = replies_.back();
      replies_.pop_back();
      reply.release(reply.user_data);
    }
    CheckTexts();
    root_.Release(manager_);
    DeleteLater();
    RuntimeDispatcher::instance()->handlers.clear();
    CheckAllIsGone();
  }

  void CheckAllIsGone() {
    for (const auto& task : tasks_) {
      Require(task.isNull(), "no task is left");
    }
    for (const auto& channel : TaskMessaging::GetAll()) {
      Require(channel.isNull(), "no channel is left");
    }
    for (const auto& count : invocations_) {
      Require(*count <= 1, "an invocation has one reply at most");
    }
    CheckReleased();
    Task::GetAll().clear();
    TaskMessaging::GetAll().clear();
  }

  Script& script_;
  TARVProcTable root_{};
  TARVRpcClientProcTable clients_{};
  TARVRpcServerProcTable servers_{};
  TARVIntentManagerProcTable intents_{};
  _TARVManagerRef* manager_ = nullptr;
  std::vector<void*> all_;
  std::vector<void*> client_handles_;
  std::vector<void*> server_handles_;
  std::vector<void*> intent_handles_;
  _TARVIntentManagerRef* intents_there_ = nullptr;  // null when it may have ended
  std::set<const void*> idle_;                      // clients that have not been started
  std::vector<QPointer<Task>> tasks_;
  std::vector<std::shared_ptr<int>> invocations_;
  std::string text_;
  bool is_releasing_ = false;
  bool is_invoker_alive_ = false;
  int depth_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static int count = 1;
  static std::array<char, 5> name{"fuzz"};
  static std::array<char*, 2> arguments{name.data(), nullptr};
  static const QCoreApplication application(count, arguments.data());
  Journal::Get().Take();
  Script script(data, size);
  World(script).Run();
  return 0;
}

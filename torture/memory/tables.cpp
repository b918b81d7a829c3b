// The C interface, called through its tables alone. With memory or without, who has taken a slot
// structure releases it once, and who has not leaves it to its owner.
#include <tarv/tarv_capi.h>

#include <algorithm>
#include <string>
#include <utility>

#include "failing_memory.h"
#include "scenario.h"

namespace tarv::torture {
namespace {

// The slots of one object, as their owner has them.
class Slots {
 public:
  // Whoever has them now.
  enum class Holder { kOwner, kLibrary };

  // The library has taken them, unless an entry says otherwise.
  void Give() { holder_ = Holder::kLibrary; }
  void KeepOwn() { holder_ = Holder::kOwner; }
  void OnReleased() { ++releases_; }
  bool AreReleased() const { return releases_ > 0; }
  // Once the library has let go of everything.
  std::string WhatIsWrong(const char* name) const {
    const int expected = holder_ == Holder::kLibrary ? 1 : 0;
    return releases_ == expected
               ? ""
               : std::string(name) + "'s slots are released " + std::to_string(releases_) +
                     " times, not " + std::to_string(expected);
  }

 private:
  Holder holder_ = Holder::kOwner;
  int releases_ = 0;
};

class Tables : public Scenario {
 public:
  explicit Tables(Loop& loop) : Scenario(loop) {
    TARVProcTableLoad(&root_, sizeof(root_));
    root_.RpcClientProcTableLoad(&clients_, sizeof(clients_));
    root_.RpcServerProcTableLoad(&servers_, sizeof(servers_));
    root_.IntentManagerProcTableLoad(&intent_managers_, sizeof(intent_managers_));
    manager_ = root_.Initialize();
  }

 protected:
  template <class Structure>
  static void OnRelease(void* user_data) {
    static_cast<Structure*>(user_data)->slots_.OnReleased();
  }

  TARVProcTable root_{};
  TARVRpcClientProcTable clients_{};
  TARVRpcServerProcTable servers_{};
  TARVIntentManagerProcTable intent_managers_{};
  _TARVManagerRef* manager_ = nullptr;
};

class TablesOfClient final : public Tables {
 public:
  using Tables::Tables;

  void Begin() override { large_.assign(kLargeText, 'x'); }

  void Act() override {
    client_ = root_.CreateRpcClient(manager_);
    if (client_ == nullptr) {
      CountError();
      return;
    }
    Start();
    // A start that goes on once there is memory is not cut off: nothing would be heard of it.
    if (!Settle()) {
      return;
    }
    Send("\"small\"");
    Send(large_.c_str());
    Settle();
    OpenUri();
    Settle();
    Release();
  }

  std::string Recover() override {
    Settle();
    if (is_started_ && !has_ended_) {
      Send("\"after\"");
      if (!Settle()) {
        return "connected, but deaf";
      }
    }
    Release();
    if (slots_are_given_ && is_started_ && !RunUntil([this] { return has_ended_; })) {
      return "released, but not disconnected";
    }
    root_.Release(manager_);
    RunUntil([this] { return !slots_are_given_ || slots_.AreReleased(); });
    const std::string wrong = slots_.WhatIsWrong("the client");
    return wrong.empty() ? uri_.slots_.WhatIsWrong("OpenUri") : wrong;
  }

 private:
  friend Tables;
  static constexpr std::size_t kLargeText = 200'000;

  struct Uri {
    std::shared_ptr<Debt> debt;
    Slots slots_;
  };

  void Start() {
    const auto debt = Owe();
    TARVRpcClientSlots slots{};
    slots.size = sizeof(slots);
    slots.OnStarted = [](void* data, int code, const char* /*text*/, std::size_t chunk) {
      Of(data).OnStarted(code, chunk);
    };
    slots.OnMessage = [](void* data, const char* /*text*/, std::size_t chunk) {
      Of(data).unanswered_.PayFirst();
      Of(data).Unlock(chunk);
    };
    slots.OnDisconnect = [](void* data, int /*code*/, const char* /*text*/, std::size_t chunk) {
      Of(data).OnDisconnect(chunk);
    };
    slots.Release = &OnRelease<TablesOfClient>;
    slots.user_data = this;
    starting_ = debt;
    Try(debt, [&] {
      slots_are_given_ =
          clients_.StartTask(client_, "echoing", "/libs", &slots) == QUARN_RESULT_SUCCESS;
    });
    if (slots_are_given_) {
      slots_.Give();
    }
  }

  // Owes the echo, or the end.
  void Send(const char* text) {
    if (!is_started_ || has_ended_) {
      return;
    }
    const auto debt = Owe();
    unanswered_.Add(debt);
    Try(debt, [&] {
      if (clients_.SendMessage(client_, text) != QUARN_RESULT_SUCCESS) {
        CountError();
        debt->Refuse();
      }
    });
  }

  void OpenUri() {
    _TARVIntentManagerRef* const intents = root_.GetIntentManager(manager_);
    if (intents == nullptr) {
      CountError();
      return;
    }
    uri_.debt = Owe();
    TARVOpenUriSlot slot{};
    slot.size = sizeof(slot);
    slot.callback = [](void* data, bool /*success*/) { static_cast<Uri*>(data)->debt->Pay(); };
    slot.release = &OnRelease<Uri>;
    slot.user_data = &uri_;
    uri_.slots_.Give();  // the header says: also when memory runs out
    Try(uri_.debt, [&] {
      if (intent_managers_.OpenUri(intents, "https://example.org/", &slot) !=
          QUARN_RESULT_SUCCESS) {
        uri_.slots_.KeepOwn();
        CountError();
      }
    });
  }

  void Release() {
    Try([this] { clients_.Release(client_); });
  }

  void OnStarted(int code, std::size_t chunk) {
    starting_->Pay();
    is_started_ = code == 0;
    if (code != 0) {
      CountError();
    }
    Unlock(chunk);
  }
  void OnDisconnect(std::size_t chunk) {
    has_ended_ = true;
    unanswered_.PayAll();
    Unlock(chunk);
  }
  void Unlock(std::size_t chunk) { clients_.UnlockResources(client_, chunk); }

  static TablesOfClient& Of(void* data) { return *static_cast<TablesOfClient*>(data); }

  _TARVRpcClientRef* client_ = nullptr;
  std::string large_;
  Slots slots_;
  Uri uri_;
  std::shared_ptr<Debt> starting_;
  DebtQueue unanswered_;
  bool slots_are_given_ = false;
  bool is_started_ = false;
  bool has_ended_ = false;
};

// In a process that is no task a server runs, too: it has no starter.
class TablesOfServer final : public Tables {
 public:
  using Tables::Tables;

  void Act() override {
    server_ = root_.GetRpcServer(manager_);
    if (server_ == nullptr) {
      CountError();
      return;
    }
    Run();
    Try([this] { result_ = servers_.SendMessage(server_, "text"); });
    Try([this] { root_.Release(manager_); });
  }

  std::string Recover() override {
    if (!is_running_) {
      // What has failed can be tried again, and takes the slots then.
      server_ = root_.GetRpcServer(manager_);
      Run();
      if (!is_running_ || servers_.SendMessage(server_, "text") != QUARN_RESULT_SUCCESS) {
        return "does not run with memory";
      }
    }
    root_.Release(manager_);
    return slots_.WhatIsWrong("the server");
  }

 private:
  friend Tables;

  void Run() {
    TARVRpcServerSlots slots{};
    slots.size = sizeof(slots);
    slots.OnStarted = [](void* data, int /*code*/, const char* /*text*/, std::size_t /*chunk*/) {
      static_cast<TablesOfServer*>(data)->is_running_ = true;
    };
    slots.Release = &OnRelease<TablesOfServer>;
    slots.user_data = this;
    slots_.Give();
    Try([&] { servers_.Run(server_, &slots); });
    if (!is_running_) {
      slots_.KeepOwn();
    }
  }

  _TARVRpcServerRef* server_ = nullptr;
  QuarnResult result_ = QUARN_RESULT_SUCCESS;
  Slots slots_;
  bool is_running_ = false;
};

}  // namespace

std::unique_ptr<Scenario> MakeTables(Loop& loop) { return std::make_unique<TablesOfClient>(loop); }
std::unique_ptr<Scenario> MakeTablesOfServer(Loop& loop) {
  return std::make_unique<TablesOfServer>(loop);
}

}  // namespace tarv::torture

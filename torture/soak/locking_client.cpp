#include "locking_client.h"

#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <algorithm>
#include <optional>
#include <random>
#include <utility>
#include <vector>

namespace soak {
namespace {

using vorpc::Message;

struct Tables {
  Tables() {
    TARVProcTableLoad(&root, sizeof(root));
    root.RpcClientProcTableLoad(&client, sizeof(client));
  }

  TARVProcTable root{};
  TARVRpcClientProcTable client{};
};

const Tables& GetTables() {
  static const Tables tables;
  return tables;
}

class LockingClient : public std::enable_shared_from_this<LockingClient> {
 public:
  explicit LockingClient(Ledger& ledger) : ledger_(ledger) {}

  void Start(const std::string& task) {
    const std::string libraries = QCoreApplication::applicationDirPath().toStdString() + "/lib";
    // Released with the slots.
    auto owner = std::make_unique<std::shared_ptr<LockingClient>>(shared_from_this());
    TARVRpcClientSlots slots{};
    slots.size = sizeof(slots);
    slots.OnStarted = &OnStarted;
    slots.OnDisconnect = &OnDisconnect;
    slots.OnMessage = &OnMessage;
    slots.Release = &OnRelease;
    slots.user_data = owner.get();
    if (GetTables().client.StartTask(handle_, task.c_str(), libraries.c_str(), &slots) !=
        QUARN_RESULT_SUCCESS) {
      ledger_.Complain("a client of the C interface does not start");
      return;
    }
    owner.release();  // NOLINT(bugprone-unused-return-value): OnRelease has it
  }

  vorpc::IOwnedClient& Get() const { return *client_; }

  void LetGo() {
    client_->Abandon();
    CheckTexts();
    locked_.clear();
    GetTables().client.Release(handle_);
  }

 private:
  struct Locked {
    std::size_t chunk;
    const char* text;
    std::string copy;
  };

  static LockingClient& Of(void* user_data) {
    return **static_cast<std::shared_ptr<LockingClient>*>(user_data);
  }
  static void OnStarted(void* user_data, int code, const char* text, std::size_t chunk) {
    LockingClient& self = Of(user_data);
    if (code == 0) {
      self.client_->SetStarted();
    } else {
      self.client_->Disconnect(Message::Error(code, text));
    }
    self.Unlock(chunk);
  }
  static void OnDisconnect(void* user_data, int code, const char* text, std::size_t chunk) {
    LockingClient& self = Of(user_data);
    self.CheckTexts();
    self.client_->Disconnect(code == 0 ? std::nullopt : std::optional(Message::Error(code, text)));
    self.Unlock(chunk);
  }
  static void OnMessage(void* user_data, const char* text, std::size_t chunk) {
    LockingClient& self = Of(user_data);
    Message message = Message::FromBase64(text);
    self.Keep(text, chunk);  // it may give the text back at once
    self.client_->Receive(std::move(message));
  }
  static void OnRelease(void* user_data) {
    const std::unique_ptr<std::shared_ptr<LockingClient>> owner(
        static_cast<std::shared_ptr<LockingClient>*>(user_data));
    (*owner)->locked_.clear();  // the texts have gone with the client
  }

  // Of large texts the head is looked at.
  void Keep(const char* text, std::size_t chunk) {
    constexpr std::size_t kLongestCopy = 100;
    constexpr std::size_t kMostLocked = 300;
    locked_.push_back({chunk, text, std::string(text).substr(0, kLongestCopy)});
    if (locked_.size() > kMostLocked) {
      GiveBackSome();
    }
  }

  void GiveBackSome() {
    constexpr std::size_t kStay = 50;
    CheckTexts();
    std::shuffle(locked_.begin(), locked_.end(), random_);
    while (locked_.size() > kStay) {
      Unlock(locked_.back().chunk);
      locked_.pop_back();
    }
  }

  void CheckTexts() {
    for (const Locked& locked : locked_) {
      if (std::string_view(locked.text).substr(0, locked.copy.size()) != locked.copy) {
        ledger_.Complain("a text that is locked has changed");
      }
    }
  }

  void Unlock(std::size_t chunk) const { GetTables().client.UnlockResources(handle_, chunk); }

  Ledger& ledger_;
  _TARVRpcClientRef* const handle_ =
      GetTables().root.CreateRpcClient(GetTables().root.Initialize());
  const std::shared_ptr<vorpc::IOwnedClient> client_ =
      vorpc::IOwnedClient::Create([handle = handle_](Message&& message) {
        GetTables().client.SendMessage(handle, message.ToBase64().c_str());
      });
  std::vector<Locked> locked_;
  std::minstd_rand random_;
};

}  // namespace

std::shared_ptr<vorpc::IClient> MakeLockingClient(const std::string& task, Ledger& ledger) {
  const auto client = std::make_shared<LockingClient>(ledger);
  client->Start(task);
  return {&client->Get(), [client](vorpc::IClient* /*its own*/) { client->LetGo(); }};
}

}  // namespace soak

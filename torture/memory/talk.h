// An application that talks to its task, and keeps account of what it is owed.
#ifndef TORTURE_TALK_H
#define TORTURE_TALK_H

#include <tarv/manager_wrapper.h>
#include <vorpc/client.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "account.h"
#include "loop.h"

namespace tarv::torture {

class Talk : public Account {
 public:
  explicit Talk(Loop* loop) : loop_(loop) {}

  // Each counts what is owed from then on, and lets no std::bad_alloc out.
  void MakeManager();
  void StartTask(const std::string& task);
  void Request(const std::string& method, const cw::EncodableValue& params = {});
  void Say(int number);
  void OpenUri();
  void EndClient();
  void EndManager();

  // Runs the loop until nothing is owed, or for `limit`.
  bool Settle(std::chrono::milliseconds limit);
  bool IsConnected() const { return client_ != nullptr && client_->IsConnected(); }
  bool HasEnded() const { return has_ended_; }
  // The result of the latest request; null when it failed.
  const cw::EncodableValue& GetResult() const { return result_; }
  bool HasResult() const { return has_result_; }
  int CountSaid() const { return said_; }
  vorpc::IClient* GetClient() const { return client_.get(); }

 private:
  using OptionalError = std::optional<vorpc::Message::Error>;
  struct Listeners {
    std::function<void(const OptionalError&)> on_connected;
    std::function<void(const OptionalError&)> on_disconnected;
  };

  Listeners ListenersFor(const std::shared_ptr<Debt>& debt);
  void RunClient(const std::string& task, Listeners&& listeners);
  void OnResponse(const vorpc::Message::Response& response);

  Loop* loop_;
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IClient> client_;
  std::unique_ptr<tarv::IntentManager> intents_;
  cw::EncodableValue result_;
  bool has_result_ = false;
  bool has_ended_ = false;
  int said_ = 0;
};

}  // namespace tarv::torture

#endif  // TORTURE_TALK_H

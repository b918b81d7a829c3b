// An application that talks to its task, and keeps account of what it is owed.
#ifndef TORTURE_TALK_H
#define TORTURE_TALK_H

#include <tarv/manager_wrapper.h>
#include <vorpc/client.h>

#include <QTimer>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarv::torture {

// Something that was asked for, and is to end exactly once: by a call of its callback, or by an
// exception of the call that asked.
class Debt {
 public:
  void Pay() { ++payments_; }
  void Refuse() { is_refused_ = true; }
  bool IsPaid() const { return is_refused_ || payments_ > 0; }
  // "", "unanswered" or "answered twice".
  const char* WhatIsWrong() const;

 private:
  int payments_ = 0;
  bool is_refused_ = false;
};

// Runs the event loop until `condition` holds; false when `limit` is over first. An allocation that
// fails inside the loop is counted in `escaped_exceptions`. Takes no memory itself.
class Loop {
 public:
  Loop();
  bool RunUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);
  int CountEscapedExceptions() const { return escaped_exceptions_; }

 private:
  void Turn();

  QTimer wake_;
  int escaped_exceptions_ = 0;
};

class Talk {
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
  // What is wrong with one of the debts, or "".
  std::string WhatIsWrong() const;
  bool IsConnected() const { return client_ != nullptr && client_->IsConnected(); }
  bool HasEnded() const { return has_ended_; }
  // The result of the latest request; null when it failed.
  const cw::EncodableValue& GetResult() const { return result_; }
  bool HasResult() const { return has_result_; }
  int CountRefusals() const { return refusals_; }
  int CountErrors() const { return errors_; }
  int CountSaid() const { return said_; }
  vorpc::IClient* GetClient() const { return client_.get(); }

 private:
  std::shared_ptr<Debt> Owe();
  template <class Call>
  void Try(const std::shared_ptr<Debt>& debt, const Call& call);
  void OnResponse(const vorpc::Message::Response& response);

  Loop* loop_;
  std::unique_ptr<tarv::ManagerWrapper> manager_;
  std::shared_ptr<vorpc::IClient> client_;
  std::unique_ptr<tarv::IntentManager> intents_;
  std::vector<std::shared_ptr<Debt>> debts_;
  cw::EncodableValue result_;
  bool has_result_ = false;
  bool has_ended_ = false;
  int refusals_ = 0;
  int errors_ = 0;
  int said_ = 0;
};

}  // namespace tarv::torture

#endif  // TORTURE_TALK_H

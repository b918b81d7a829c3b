#include "talk.h"

#include <functional>
#include <new>
#include <utility>

#include "failing_memory.h"

namespace tarv::torture {
namespace {

using Response = vorpc::Message::Response;
}  // namespace

void Talk::MakeManager() {
  Try([this] {
    manager_ = tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LIBRARY_FOLDER);
  });
}

// Owes the news of the connection, or of its failure.
void Talk::StartTask(const std::string& task) {
  const auto debt = Owe();
  has_ended_ = false;
  Listeners listeners;
  {
    const OwnMemory own;
    listeners = ListenersFor(debt);
  }
  Try(debt, [&] { RunClient(task, std::move(listeners)); });
  // A client that could not be made whole is let go.
  if (debt->IsPaid() && !IsConnected()) {
    EndClient();
  }
}

Talk::Listeners Talk::ListenersFor(const std::shared_ptr<Debt>& debt) {
  return {[this, debt](const OptionalError& error) {
            debt->Pay();
            has_ended_ |= error.has_value();
          },
          [this](const OptionalError& /*error*/) { has_ended_ = true; }};
}

void Talk::RunClient(const std::string& task, Listeners&& listeners) {
  client_ = manager_ == nullptr ? nullptr : manager_->CreateIpcClient(task);
  if (client_ == nullptr) {
    throw std::bad_alloc();
  }
  client_->OnDisconnected(std::move(listeners.on_disconnected));
  client_->OnNotify("said", [this](const auto& /*notification*/) { ++said_; });
  client_->OnConnected(std::move(listeners.on_connected));
  client_->Run();
}

void Talk::OnResponse(const Response& response) {
  const OwnMemory own;
  has_result_ = response.HasResult();
  if (!has_result_) {
    CountError();
  }
  result_ = has_result_ ? *response.GetResult() : cw::EncodableValue();
}

void Talk::Request(const std::string& method, const cw::EncodableValue& params) {
  const auto debt = Owe();
  std::function<void(const Response&)> callback;
  {
    const OwnMemory own;
    has_result_ = false;
    callback = [this, debt](const Response& response) {
      debt->Pay();
      OnResponse(response);
    };
  }
  Try(debt, [&] {
    if (client_ != nullptr) {
      client_->SendRequest(method, params, std::move(callback));
    }
  });
}

void Talk::Say(int number) {
  Try([&] { client_->SendNotify("say", number); });
}

void Talk::OpenUri() {
  const auto debt = Owe();
  std::function<void(bool)> callback;
  {
    const OwnMemory own;
    callback = [debt](bool /*success*/) { debt->Pay(); };
  }
  Try(debt, [&] {
    if (intents_ == nullptr) {
      intents_ = manager_->GetIntentManager();
    }
    if (intents_ == nullptr) {
      throw std::bad_alloc();
    }
    intents_->OpenUri("https://example.org/", std::move(callback));
  });
}

void Talk::EndClient() {
  Try([this] { client_.reset(); });
}

void Talk::EndManager() {
  Try([this] {
    client_.reset();
    intents_.reset();
    manager_.reset();
  });
}

bool Talk::Settle(std::chrono::milliseconds limit) {
  return loop_->RunUntil([this] { return IsSettled(); }, limit);
}

}  // namespace tarv::torture

#include "talk.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <QEventLoop>
#include <algorithm>
#include <new>
#include <utility>

#include "failing_memory.h"

namespace tarv::torture {
namespace {

using Response = vorpc::Message::Response;
using OptionalError = std::optional<vorpc::Message::Error>;

constexpr int kLookMs = 2;

}  // namespace

const char* Debt::WhatIsWrong() const {
  const int ends = payments_ + (is_refused_ ? 1 : 0);
  return ends == 1 ? "" : ends == 0 ? "unanswered" : "answered twice";
}

Loop::Loop() { wake_.start(kLookMs); }

void Loop::Turn() {
  try {
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
  } catch (const std::bad_alloc&) {
    ++escaped_exceptions_;
  }
}

bool Loop::RunUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const QDeadlineTimer deadline(limit);
  while (true) {
    {
      const OwnMemory own;
      if (condition()) {
        return true;
      }
    }
    if (deadline.hasExpired()) {
      return false;
    }
    Turn();
  }
}

std::shared_ptr<Debt> Talk::Owe() {
  const OwnMemory own;
  debts_.push_back(std::make_shared<Debt>());
  return debts_.back();
}

template <class Call>
void Talk::Try(const std::shared_ptr<Debt>& debt, const Call& call) {
  try {
    call();
  } catch (const std::bad_alloc&) {
    ++refusals_;
    if (debt != nullptr) {
      debt->Refuse();
    }
  }
}

void Talk::MakeManager() {
  Try(nullptr, [this] {
    manager_ = tarv::ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LIBRARY_FOLDER);
  });
}

// Owes the news of the connection, or of its failure.
void Talk::StartTask(const std::string& task) {
  const auto debt = Owe();
  has_ended_ = false;
  std::function<void(const OptionalError&)> on_connected;
  std::function<void(const OptionalError&)> on_disconnected;
  {
    const OwnMemory own;
    on_connected = [this, debt](const OptionalError& error) {
      debt->Pay();
      has_ended_ |= error.has_value();
    };
    on_disconnected = [this](const OptionalError& /*error*/) { has_ended_ = true; };
  }
  Try(debt, [&] {
    client_ = manager_ == nullptr ? nullptr : manager_->CreateIpcClient(task);
    if (client_ == nullptr) {
      throw std::bad_alloc();
    }
    client_->OnDisconnected(std::move(on_disconnected));
    client_->OnNotify("said", [this](const auto& /*notification*/) { ++said_; });
    client_->OnConnected(std::move(on_connected));
    client_->Run();
  });
  // A client that could not be made whole is let go.
  if (debt->IsPaid() && !IsConnected()) {
    EndClient();
  }
}

void Talk::OnResponse(const Response& response) {
  const OwnMemory own;
  has_result_ = response.HasResult();
  errors_ += has_result_ ? 0 : 1;
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
  Try(nullptr, [&] { client_->SendNotify("say", number); });
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
  Try(nullptr, [this] { client_.reset(); });
}

void Talk::EndManager() {
  Try(nullptr, [this] {
    client_.reset();
    intents_.reset();
    manager_.reset();
  });
}

bool Talk::Settle(std::chrono::milliseconds limit) {
  return loop_->RunUntil(
      [this] {
        return std::all_of(debts_.begin(), debts_.end(),
                           [](const auto& debt) { return debt->IsPaid(); });
      },
      limit);
}

std::string Talk::WhatIsWrong() const {
  for (const auto& debt : debts_) {
    if (*debt->WhatIsWrong() != '\0') {
      return debt->WhatIsWrong();
    }
  }
  return "";
}

}  // namespace tarv::torture

#include "call_scenario.h"

#include <new>
#include <optional>
#include <utility>

namespace tarv::torture {

using vorpc::Message;

Wire::Wire()
    : server(vorpc::IOwnedServer::Create(
          [this](Message&& message) { to_client_.push_back(message.ToBase64()); })),
      client(vorpc::IOwnedClient::Create(
          [this](Message&& message) { to_server_.push_back(message.ToBase64()); })) {
  QObject::connect(&timer_, &QTimer::timeout, &timer_, [this] { Carry(); });
  timer_.start(1);
  client->SetStarted();
}

// One that was never run has to be, to learn that.
Wire::~Wire() {
  client->Run();
  client->Disconnect(std::nullopt);
}

void Wire::Carry() {
  const auto receive_at_server = [this](Message&& message) { server->Receive(std::move(message)); };
  const auto receive_at_client = [this](Message&& message) { client->Receive(std::move(message)); };
  while (CarryOne(to_server_, receive_at_server) || CarryOne(to_client_, receive_at_client)) {
  }
}

bool Wire::CarryOne(Texts& way, const std::function<void(Message&&)>& receive) {
  if (way.empty() || has_ended) {
    return false;
  }
  Message message;
  {
    const OwnMemory own;
    message = Message::FromBase64(way.front());
    way.pop_front();
  }
  try {
    receive(std::move(message));
  } catch (const std::bad_alloc&) {
    End();
  }
  return true;
}

// The end is told once; when memory runs out on the way to it, in short.
void Wire::End() noexcept {
  has_ended = true;
  try {
    client->Disconnect(Message::Error(-32003, "memory ran out for a message"));
  } catch (const std::bad_alloc&) {
    const OwnMemory own;
    client->Disconnect(Message::Error(-32003, "lost"));
  }
}

void CallScenario::Begin() {
  wire_ = std::make_unique<Wire>();
  MakeService();
  MakeCaller();
  Echo();
  Settle();
}

void CallScenario::MakeService() {
  Try([this] {
    service_ = Service::For(wire_->server);
    service_->On(kEcho, [](std::string text) { return text; });
    service_->On(kFail, [] { throw RequestError(7, kLongText); });
    service_->On(kStep, [](const Request<void, std::string>& request) {
      request.Progress(kLongText);
      request.Answer();
    });
    service_->On(kKeep, [this](const Request<void>& request) {
      const OwnMemory own;
      kept_.push_back(request);
    });
    service_->Run();
  });
}

void CallScenario::MakeCaller() {
  Try([this] {
    caller_ = std::make_unique<Caller>(wire_->client, CallerOptions().TaskName("the wire's task"));
  });
}

void CallScenario::Echo() {
  Call(End::kValue, [](Caller& caller) { return caller.Call(kEcho, kLongText); });
}

void CallScenario::WaitForKept() {
  RunUntil([this] { return CountOwed() <= kept_.size() || wire_->has_ended; });
}

// What memory ran out for is told when something else happens, what still lives works, and all can
// be let go.
std::string CallScenario::Recover() {
  if (Lives()) {
    Echo();
  }
  if (!Settle()) {
    return "unanswered with memory";
  }
  if (Lives()) {
    const int errors = CountErrors();
    Echo();
    if (!Settle() || CountErrors() > errors) {
      return "connected, but errs";
    }
  }
  Release();
  return "";
}

bool CallScenario::Lives() const {
  return caller_ != nullptr && service_ != nullptr && !wire_->has_ended;
}

void CallScenario::Release() {
  Try([this] {
    caller_.reset();
    service_.reset();
    kept_.clear();
  });
}

}  // namespace tarv::torture

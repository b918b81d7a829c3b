#include "pure.h"

#include <cw/encodable_value.h>
#include <qt/internal/start_timer.h>
#include <vorpc/client.h>
#include <vorpc/message.h>
#include <vorpc/qt/utils.h>
#include <vorpc/server.h>

#include <QAbstractEventDispatcher>
#include <QJsonValue>
#include <QObject>
#include <QTimer>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "account.h"
#include "failing_memory.h"

namespace tarv::torture {
namespace {

using cw::EncodableList;
using cw::EncodableMap;
using cw::EncodableValue;
using vorpc::Message;

const char kText[] = "a text of some length, too long for no memory";

// Each kind that takes memory.
EncodableValue MakeValue() {
  const OwnMemory own;
  return EncodableMap{
      {"text", kText},
      {"list", EncodableList{1, 2.5, true, kText, EncodableMap{{kText, {}}}}},
      {"bytes", std::vector<std::uint8_t>(40, 7)},
      {"numbers", std::vector<std::int32_t>(20, 7)},
      {"long numbers", std::vector<std::int64_t>(20, 7)},
      {"reals", std::vector<double>(20, 0.5)},
  };
}

// What JSON has, too.
EncodableValue MakePlainValue() {
  const OwnMemory own;
  return EncodableMap{{"text", kText},
                      {"list", EncodableList{1, 2.5, true, kText, EncodableMap()}}};
}

// Runs `attempt`, and says what is wrong when it returns false though memory was there for all.
std::string Judge(int* refusals, const std::function<bool()>& attempt) {
  bool is_whole = false;
  try {
    is_whole = attempt();
  } catch (const std::bad_alloc&) {
    ++*refusals;
    return "";
  }
  return is_whole || CountFailures() > 0 ? "" : "something else came out";
}

std::string Values(int* refusals) {
  const EncodableValue value = MakeValue();
  return Judge(refusals, [&value] {
    const EncodableValue copy = value;
    return EncodableValue::Deserialize(copy.Serialize()) == value;
  });
}

bool ComesThrough(const Message& message) {
  return Message::FromBase64(message.ToBase64()) == message &&
         Message::FromEncodable(message.ToEncodable()) == message;
}

std::string Messages(int* refusals) {
  const EncodableValue value = MakeValue();
  return Judge(refusals, [&value] {
    const Message::ID id("an id of some length, too long for no memory");
    return ComesThrough(Message::CreateRequest(id, kText, value)) &&
           ComesThrough(Message::CreateResponse(id, value)) &&
           ComesThrough(Message::CreateNotification(kText, value)) &&
           ComesThrough(Message::CreateError(id, 7, kText, value));
  });
}

std::string Json(int* refusals) {
  const EncodableValue value = MakePlainValue();
  return Judge(refusals, [&value] {
    QJsonValue json;
    EncodableValue back;
    return vorpc::qt::EncodableToJson(value, json) && vorpc::qt::JsonToEncodable(json, back) &&
           !vorpc::qt::EncodableMapToJsonString(*std::get_if<EncodableMap>(&value)).isEmpty() &&
           back.Find("list") != nullptr;
  });
}

// A client and a server, and the messages on their way, each as its text. A transport that loses one
// for want of memory ends, as the library's own does.
class Pair {
 public:
  Pair();
  // Each counts what is owed from then on, and lets no std::bad_alloc out.
  void Ask(int* refusals);
  void Carry();
  void End();
  bool HasLost() const { return has_lost_; }
  bool HasResult() const { return results_ > 0; }
  // What is wrong with one of the debts, or "".
  std::string WhatIsWrong() const;

 private:
  bool CarryOne(std::deque<std::string>* way, const std::function<void(Message&&)>& receive);

  std::deque<std::string> to_server_;
  std::deque<std::string> to_client_;
  std::vector<std::shared_ptr<Debt>> debts_;
  std::shared_ptr<vorpc::IOwnedServer> server_;
  std::shared_ptr<vorpc::IOwnedClient> client_;
  int results_ = 0;
  bool has_lost_ = false;
};

Pair::Pair()
    : server_(vorpc::IOwnedServer::Create(
          [this](Message&& message) { to_client_.push_back(message.ToBase64()); })),
      client_(vorpc::IOwnedClient::Create(
          [this](Message&& message) { to_server_.push_back(message.ToBase64()); })) {
  server_->OnRequest("echo", [](const std::string& /*method*/, const EncodableValue& params,
                                auto&& reply) { reply->SendResult(params); });
  server_->OnNotify("say", [this](const Message::Notification& notification) {
    server_->SendNotify("said", notification.params);
  });
  client_->OnNotify("said", [](const auto& /*notification*/) {});
  server_->Run();
  client_->Run();
  client_->SetStarted();
}

void Pair::Ask(int* refusals) {
  std::shared_ptr<Debt> debt;
  std::function<void(const Message::Response&)> on_response;
  {
    const OwnMemory own;
    debt = debts_.emplace_back(std::make_shared<Debt>());
    on_response = [this, debt](const Message::Response& response) {
      debt->Pay();
      results_ += response.HasResult() ? 1 : 0;
    };
  }
  try {
    client_->SendRequest("echo", kText, std::move(on_response));
  } catch (const std::bad_alloc&) {
    ++*refusals;
    has_lost_ = true;
    debt->Refuse();
  }
  try {
    client_->SendNotify("say", 1);
  } catch (const std::bad_alloc&) {
    ++*refusals;
  }
}

bool Pair::CarryOne(std::deque<std::string>* way, const std::function<void(Message&&)>& receive) {
  if (way->empty()) {
    return false;
  }
  std::string text;
  {
    const OwnMemory own;
    text = std::move(way->front());
    way->pop_front();
  }
  try {
    Message message = Message::FromBase64(text);
    has_lost_ |= message.GetType() == Message::Type::Error;
    receive(std::move(message));
  } catch (const std::bad_alloc&) {
    has_lost_ = true;
  }
  return true;
}

void Pair::Carry() {
  const auto to_server = [this](Message&& message) { server_->Receive(std::move(message)); };
  const auto to_client = [this](Message&& message) { client_->Receive(std::move(message)); };
  while (CarryOne(&to_server_, to_server) || CarryOne(&to_client_, to_client)) {
  }
}

void Pair::End() { client_->Disconnect(Message::Error(1, "the end")); }

std::string Pair::WhatIsWrong() const {
  for (const auto& debt : debts_) {
    if (*debt->WhatIsWrong() != '\0') {
      return debt->WhatIsWrong();
    }
  }
  return "";
}

// With memory back, what still lives works, and an end pays what is owed.
std::string Recover(Pair* pair) {
  int refusals = 0;
  pair->Carry();
  if (!pair->HasLost()) {
    pair->Ask(&refusals);
    pair->Carry();
    if (!pair->HasResult() || !pair->WhatIsWrong().empty()) {
      return "connected, but does not answer";
    }
  }
  pair->End();
  pair->Ask(&refusals);
  return refusals > 0 ? "no memory once there was some" : pair->WhatIsWrong();
}

std::string Conversation(int* refusals) {
  std::unique_ptr<Pair> pair;
  try {
    pair = std::make_unique<Pair>();
  } catch (const std::bad_alloc&) {
    ++*refusals;
    return "";
  }
  pair->Ask(refusals);
  pair->Carry();
  if (CountFailures() == 0 && !pair->HasResult()) {
    return "no result";
  }
  MendMemory();
  return Recover(pair.get());
}

// How many timers the event loop has for an object, whatever that knows itself.
int CountTimers(QObject* object) {
  const OwnMemory own;
  return QAbstractEventDispatcher::instance()->registeredTimers(object).size();
}

// A timer that could not be started does not run.
std::string Timers(int* refusals) {
  std::optional<QTimer> timer;
  std::optional<QObject> object;
  {
    const OwnMemory own;
    timer.emplace();
    object.emplace();
  }
  bool are_started = false;
  try {
    qt::details::StartTimer(*timer, 1000);
    qt::details::StartTimer(*object, std::chrono::seconds(1), Qt::PreciseTimer);
    are_started = true;
  } catch (const std::bad_alloc&) {
    ++*refusals;
  }
  const int expected = are_started ? 2 : timer->isActive() ? 1 : 0;
  return CountTimers(&*timer) + CountTimers(&*object) == expected ? "" : "a timer is left";
}

}  // namespace

PureOperation FindPureOperation(const std::string& name) {
  static const std::map<std::string, PureOperation> kOperations = {{"values", &Values},
                                                                   {"messages", &Messages},
                                                                   {"json", &Json},
                                                                   {"vorpc", &Conversation},
                                                                   {"timers", &Timers}};
  const auto found = kOperations.find(name);
  return found == kOperations.end() ? nullptr : found->second;
}

}  // namespace tarv::torture

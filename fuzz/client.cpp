// A whole client against a peer that follows a script: a request is answered once at most, and once
// exactly when the connection ends, unless it is forgotten; the outcome of connecting is told once, and
// an end only of what has begun; a client that is let go tells nothing more, and keeps no callback.
#include <vorpc/client.h>
#include <vorpc/requests.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/require.h"
#include "support/script.h"
#include "support/values.h"

namespace {

using tarv::fuzz::MakeValue;
using tarv::fuzz::Require;
using tarv::fuzz::Script;
using vorpc::Message;

// What became of a request.
struct Asked {
  Message::ID id{""};  // until it has been started
  int answers = 0;
  bool is_forgotten = false;
  std::weak_ptr<int> callback;  // gone once no callback is kept
};

class Conversation {
 public:
  explicit Conversation(Script& script) : script_(script) {}

  void Run() {
    Subscribe();
    while (script_.HasMore() && client_ != nullptr) {
      Step();
    }
    if (client_ != nullptr) {
      End();
    }
    client_.reset();
    Require(token_.use_count() == 1, "no callback is kept");
  }

 private:
  void Subscribe() {
    client_->OnConnected([this, token = token_](const std::optional<Message::Error>& error) {
      CheckIsThere();
      Require(++outcomes_ == 1, "one outcome");
      has_connected_ = !error.has_value();
      Nest();
    });
    client_->OnDisconnected([this, token = token_](const auto&) {
      CheckIsThere();
      Require(has_connected_ && ++ends_ == 1, "one end, of what has begun");
      Nest();
    });
    client_->OnNotify("n", [this, token = token_](const auto&) {
      CheckIsThere();
      Require(has_connected_, "nothing is delivered before the outcome");
      Nest();
    });
  }

  void CheckIsThere() const { Require(client_ != nullptr, "who is gone tells nothing"); }

  void Step() {
    switch (script_.Below(12)) {
      case 0:
        client_->Run();
        break;
      case 1:
        client_->SetStarted();
        break;
      case 2:
        Request();
        break;
      case 3:
        client_->SendNotify(script_.Text(), MakeValue(script_));
        break;
      case 4:
        Answer();
        break;
      case 5:
        client_->Receive(Message::CreateNotification("n", MakeValue(script_)));
        break;
      case 6:
        client_->Receive(Message::FromEncodable(MakeValue(script_)));
        break;
      case 7:
        client_->Receive(Message::FromBase64(script_.Text()));
        break;
      case 8:
        LetGo();
        break;
      case 9:
        Start();
        break;
      case 10:
        Forget();
        break;
      default:
        client_->Disconnect(Message::Error(-1, "the script says so"));
    }
  }

  // Rarely, as it is the end of the script.
  void LetGo() {
    if (script_.Below(8) == 0) {
      client_.reset();
    }
  }

  void Request() {
    const std::string method = PickMethod();
    client_->SendRequest(method, MakeValue(script_), MakeCallback());
  }

  // The client may be let go, and answer, before it returns the id.
  void Start() {
    const std::string method = PickMethod();
    const std::size_t index = asked_.size();
    const Message::ID id = GetRequests().StartRequest(method, MakeValue(script_), MakeCallback());
    Require(!id.value.empty(), "a request has an id");
    asked_[index].id = id;
  }

  // Any request, answered, forgotten or made without an id as it may be; or one that never was.
  void Forget() {
    const std::size_t index = script_.Byte();
    if (index >= asked_.size()) {
      Require(!GetRequests().ForgetRequest(Message::ID("stranger")), "a stranger does not wait");
      return;
    }
    Asked& asked = asked_[index];
    const bool waits = !asked.id.value.empty() && asked.answers == 0 && !asked.is_forgotten;
    const bool has_ended = client_->HasConnectionFailed();  // it may be about to answer
    const bool is_forgotten = GetRequests().ForgetRequest(asked.id);
    Require(is_forgotten ? waits : !waits || has_ended, "what waits is forgotten, once");
    asked.is_forgotten = asked.is_forgotten || is_forgotten;
    Require(!is_forgotten || asked.callback.expired(), "what is forgotten keeps no callback");
  }

  vorpc::IRequests& GetRequests() { return dynamic_cast<vorpc::IRequests&>(*client_); }

  std::string PickMethod() { return script_.Below(8) == 0 ? "vorpc.connected" : script_.Text(); }

  std::function<void(const Message::Response&)> MakeCallback() {
    const std::size_t index = asked_.size();
    const auto kept = std::make_shared<int>(0);
    asked_.push_back({Message::ID(""), 0, false, kept});
    return [this, index, kept, token = token_](const Message::Response&) {
      CheckIsThere();
      Require(!asked_[index].is_forgotten, "what is forgotten is not answered");
      Require(++asked_[index].answers == 1, "one answer");
      Nest();
    };
  }

  // The peer answers one of the requests that it has seen, well or badly.
  void Answer() {
    if (sent_.empty()) {
      return;
    }
    const Message::Request* const request = sent_[script_.Below(256) % sent_.size()].GetRequest();
    if (request == nullptr) {
      return;
    }
    const Message::ID id = request->id;
    client_->Receive(script_.Below(4) == 0 ? Message::CreateError(id, -2, "refused")
                                           : Message::CreateResponse(id, MakeValue(script_)));
  }

  // A callback goes on with the script.
  void Nest() {
    if (depth_ < 8 && client_ != nullptr && script_.HasMore() && script_.Flag()) {
      ++depth_;
      Step();
      --depth_;
    }
  }

  void End() {
    depth_ = 8;
    client_->Run();
    client_->SetStarted();
    client_->Disconnect(Message::Error(-1, "the end"));
    Require(client_->HasConnectionFailed() && !client_->IsConnected(), "the end is the end");
    Require(outcomes_ == 1 && ends_ == (has_connected_ ? 1 : 0), "both are told");
    for (const Asked& asked : asked_) {
      Require(asked.answers == (asked.is_forgotten ? 0 : 1), "every request is answered");
    }
  }

  Script& script_;
  std::vector<Message> sent_;
  std::deque<Asked> asked_;  // a deque, as a callback may ask for more
  std::shared_ptr<int> token_ = std::make_shared<int>(0);  // held by every callback
  bool has_connected_ = false;
  int outcomes_ = 0;
  int ends_ = 0;
  int depth_ = 0;
  std::shared_ptr<vorpc::IOwnedClient> client_ =
      vorpc::IOwnedClient::Create([this](Message&& message) {
        CheckIsThere();
        sent_.push_back(std::move(message));
      });
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  Conversation(script).Run();
  return 0;
}

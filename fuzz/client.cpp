// A whole client against a peer that follows a script: a request is answered once at most, and once
// exactly when the connection ends; the outcome of connecting is told once, and an end only of what
// has begun; a client that is let go tells nothing more, and keeps no callback.
#include <vorpc/client.h>

#include <cstdint>
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
    switch (script_.Below(10)) {
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
    const std::size_t index = answers_.size();
    answers_.push_back(0);
    const std::string method = script_.Below(8) == 0 ? "vorpc.connected" : script_.Text();
    client_->SendRequest(method, MakeValue(script_),
                         [this, index, token = token_](const Message::Response&) {
                           CheckIsThere();
                           Require(++answers_[index] == 1, "one answer");
                           Nest();
                         });
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
    for (const int answers : answers_) {
      Require(answers == 1, "every request is answered");
    }
  }

  Script& script_;
  std::vector<Message> sent_;
  std::vector<int> answers_;
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

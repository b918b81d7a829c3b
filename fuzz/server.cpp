// A whole server against a peer that follows a script: it answers nothing before it runs, a request
// as often as its handler does, and one without a handler once, each by its own id; a server that is let go sends and
// tells nothing more, and keeps no handler.
#include <vorpc/server.h>

#include <algorithm>
#include <cstdint>
#include <memory>
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
    while (script_.HasMore() && server_ != nullptr) {
      Step();
    }
    if (server_ != nullptr) {
      End();
    }
    server_.reset();
    // Answers that come too late go nowhere.
    while (!replies_.empty()) {
      Reply();
    }
    Require(token_.use_count() == 1, "no callback is kept");
  }

 private:
  void Subscribe() {
    server_->OnConnected([this, token = token_](const auto&) {
      CheckIsThere();
      Require(++connections_ == 1, "one connection");
      Nest();
    });
    server_->OnNotify("n", [this, token = token_](const auto&) {
      CheckIsThere();
      Require(connections_ == 1, "nothing is delivered before the handshake");
      Nest();
    });
    Handle();
  }

  // Anew at times: the new handler takes the place of the old one.
  void Handle() {
    const int number = ++handlers_;
    server_->OnRequest(
        "kept", [this, number, token = token_](const auto& method, const auto&, auto reply) {
          CheckIsThere();
          Require(method == "kept" && number == handlers_, "the latest handler is asked");
          replies_.push_back(std::move(reply));
          Nest();
        });
  }

  void CheckIsThere() const { Require(server_ != nullptr, "who is gone tells nothing"); }

  void Step() {
    switch (script_.Below(10)) {
      case 0:
        is_running_ = true;
        server_->Run();
        break;
      case 1:
        Ask("vorpc.connected");
        break;
      case 2:
        Ask("kept");
        break;
      case 3:
        Ask("unknown " + script_.Text());
        break;
      case 4:
        server_->Receive(Message::CreateNotification("n", MakeValue(script_)));
        break;
      case 5:
        Receive(Message::FromEncodable(MakeValue(script_)));
        break;
      case 6:
        Reply();
        break;
      case 7:
        Handle();
        break;
      case 8:
        LetGo();
        break;
      default:
        server_->SendNotify(script_.Text(), MakeValue(script_));
    }
  }

  // Rarely, as it is the end of the script.
  void LetGo() {
    if (script_.Below(8) == 0) {
      server_.reset();
    }
  }

  void Ask(const std::string& method) {
    const Message::ID id(++last_id_);
    open_.push_back(id.value);
    server_->Receive(Message::CreateRequest(id, method, MakeValue(script_)));
  }

  // Whatever it is: as a request, it is to be answered.
  void Receive(Message&& message) {
    if (const Message::Request* const request = message.GetRequest()) {
      open_.push_back(request->id.value);
    }
    server_->Receive(std::move(message));
  }

  // Answers one of the requests that are kept, and lets it go.
  void Reply() {
    if (replies_.empty()) {
      return;
    }
    std::swap(replies_[script_.Below(256) % replies_.size()], replies_.back());
    const std::unique_ptr<vorpc::IReply> reply = std::move(replies_.back());
    replies_.pop_back();
    if (script_.Below(8) == 1) {
      ++unanswered_;  // the reply dies unused
    } else if (script_.Flag()) {
      reply->SendResult(MakeValue(script_));
    } else {
      reply->SendError(-1, script_.Text(), MakeValue(script_));
    }
  }

  void Nest() {
    if (depth_ < 8 && server_ != nullptr && script_.HasMore() && script_.Flag()) {
      ++depth_;
      Step();
      --depth_;
    }
  }

  void Send(const Message& message) {
    CheckIsThere();
    Require(is_running_, "nothing leaves before the server runs");
    if (const Message::Response* const response = message.GetResponse()) {
      const auto asked = std::find(open_.begin(), open_.end(), response->id.value);
      Require(asked != open_.end(), "an answer is to what was asked, once");
      open_.erase(asked);
    }
  }

  // Everything that was asked is answered once, the handshake among it.
  void End() {
    depth_ = 8;
    is_running_ = true;
    server_->Run();
    Ask("vorpc.connected");
    while (!replies_.empty()) {
      Reply();
    }
    Require(connections_ == 1, "the client is connected");
    Require(open_.size() == unanswered_, "every request is answered");
  }

  Script& script_;
  std::vector<std::unique_ptr<vorpc::IReply>> replies_;
  std::int64_t last_id_ = 0;
  std::vector<std::string>
      open_;  // the ids of requests without an answer; a peer may use one twice
  std::size_t unanswered_ = 0;
  int handlers_ = 0;
  std::shared_ptr<int> token_ = std::make_shared<int>(0);  // held by every callback
  int connections_ = 0;
  int depth_ = 0;
  bool is_running_ = false;
  std::shared_ptr<vorpc::IOwnedServer> server_ =
      vorpc::IOwnedServer::Create([this](Message&& message) { Send(message); });
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Script script(data, size);
  Conversation(script).Run();
  return 0;
}

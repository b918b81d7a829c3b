// A whole server against a peer that follows a script: it answers nothing before it runs, a request
// as often as its handler does, and one without a handler once; a server that is let go sends and
// tells nothing more, and keeps no handler.
#include <vorpc/server.h>

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
    server_->Receive(Message::CreateRequest(Message::ID(++asked_), method, MakeValue(script_)));
  }

  // Whatever it is: as a request, it is to be answered.
  void Receive(Message&& message) {
    asked_ += message.GetRequest() != nullptr ? 1 : 0;
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
    answered_ += message.GetResponse() != nullptr ? 1 : 0;
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
    Require(answered_ + unanswered_ == asked_, "every request is answered");
  }

  Script& script_;
  std::vector<std::unique_ptr<vorpc::IReply>> replies_;
  std::int64_t asked_ = 0;
  std::int64_t answered_ = 0;
  std::int64_t unanswered_ = 0;
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

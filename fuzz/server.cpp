// A whole server against a peer that follows a script: it answers nothing before it runs, a request
// as often as its handler does, and one without a handler once.
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
    server_->OnConnected([this](const auto&) { Require(++connections_ == 1, "one connection"); });
    server_->OnNotify("n", [this](const auto&) { Nest(); });
    server_->OnRequest("kept", [this](const auto&, const auto&, auto reply) {
      replies_.push_back(std::move(reply));
      Nest();
    });
    while (script_.HasMore()) {
      Step();
    }
    End();
  }

 private:
  void Step() {
    switch (script_.Below(8)) {
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
      default:
        server_->SendNotify(script_.Text(), MakeValue(script_));
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
    if (script_.Flag()) {
      reply->SendResult(MakeValue(script_));
    } else {
      reply->SendError(-1, script_.Text(), MakeValue(script_));
    }
  }

  void Nest() {
    if (depth_ < 8 && script_.HasMore() && script_.Flag()) {
      ++depth_;
      Step();
      --depth_;
    }
  }

  void Send(const Message& message) {
    Require(is_running_, "nothing leaves before the server runs");
    answered_ += message.GetResponse() != nullptr ? 1 : 0;
  }

  // Everything that was asked is answered once, the handshake among it.
  void End() {
    is_running_ = true;
    server_->Run();
    Ask("vorpc.connected");
    while (!replies_.empty()) {
      Reply();
    }
    Require(connections_ == 1, "the client is connected");
    Require(answered_ == asked_, "every request is answered");
  }

  Script& script_;
  std::vector<std::unique_ptr<vorpc::IReply>> replies_;
  std::int64_t asked_ = 0;
  std::int64_t answered_ = 0;
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

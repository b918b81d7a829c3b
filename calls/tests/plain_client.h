// A client around the library's own one.
#ifndef CALLS_TESTS_PLAIN_CLIENT_H
#define CALLS_TESTS_PLAIN_CLIENT_H

#include <vorpc/client.h>

#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

namespace tarv::test {

// What somebody else's client may be: it has no ids to tell.
class PlainClient : public vorpc::IClient {
 public:
  explicit PlainClient(std::shared_ptr<vorpc::IClient> client) : client_(std::move(client)) {}

  bool IsConnected() const override { return client_->IsConnected(); }
  bool HasConnectionFailed() const override { return client_->HasConnectionFailed(); }
  void Run() override { client_->Run(); }
  void OnConnected(
      std::function<void(const std::optional<vorpc::Message::Error>&)>&& callback) override {
    client_->OnConnected(std::move(callback));
  }
  void OnDisconnected(
      std::function<void(const std::optional<vorpc::Message::Error>&)>&& callback) override {
    client_->OnDisconnected(std::move(callback));
  }
  void SendRequest(std::string_view method, const cw::EncodableValue& params,
                   std::function<void(const vorpc::Message::Response&)>&& callback) override {
    client_->SendRequest(method, params, std::move(callback));
  }
  void SendNotify(std::string_view method, const cw::EncodableValue& params) override {
    client_->SendNotify(method, params);
  }
  void OnNotify(std::string_view method,
                std::function<void(const vorpc::Message::Notification&)>&& callback) override {
    client_->OnNotify(method, std::move(callback));
  }

 private:
  const std::shared_ptr<vorpc::IClient> client_;
};

}  // namespace tarv::test

#endif  // CALLS_TESTS_PLAIN_CLIENT_H

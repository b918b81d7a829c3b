// The client that a Loopback hands out: the library's own, which also knows its task's name and the
// end of the manager that nobody made.
#ifndef TARV_TESTING_SRC_LINK_CLIENT_H
#define TARV_TESTING_SRC_LINK_CLIENT_H

#include <tarv/task_client.h>
#include <vorpc/client.h>
#include <vorpc/requests.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tarv::testing::details {

class LinkClient final : public vorpc::IClient, public vorpc::IRequests, public ITaskClient {
 public:
  using OptionalError = std::optional<vorpc::Message::Error>;
  using ResponseCallback = std::function<void(const vorpc::Message::Response&)>;
  using ManagerCallback = std::function<void(EndedManager)>;

  LinkClient(std::shared_ptr<vorpc::IOwnedClient> client, std::string task_name)
      : client_(std::move(client)),
        requests_(dynamic_cast<vorpc::IRequests*>(client_.get())),
        task_name_(std::move(task_name)) {}

  bool IsConnected() const override { return client_->IsConnected(); }
  bool HasConnectionFailed() const override { return client_->HasConnectionFailed(); }
  void Run() override { client_->Run(); }
  void OnConnected(std::function<void(const OptionalError&)>&& callback) override {
    client_->OnConnected(std::move(callback));
  }
  void OnDisconnected(std::function<void(const OptionalError&)>&& callback) override {
    client_->OnDisconnected(std::move(callback));
  }
  void SendRequest(std::string_view method, const cw::EncodableValue& params,
                   ResponseCallback&& callback) override {
    client_->SendRequest(method, params, std::move(callback));
  }
  void SendNotify(std::string_view method, const cw::EncodableValue& params) override {
    client_->SendNotify(method, params);
  }
  void OnNotify(std::string_view method,
                std::function<void(const vorpc::Message::Notification&)>&& callback) override {
    client_->OnNotify(method, std::move(callback));
  }
  vorpc::Message::ID StartRequest(std::string_view method, const cw::EncodableValue& params,
                                  ResponseCallback&& callback) override {
    return requests_->StartRequest(method, params, std::move(callback));
  }
  bool ForgetRequest(const vorpc::Message::ID& id) override { return requests_->ForgetRequest(id); }
  const std::string& GetTaskName() const override { return task_name_; }
  void OnManagerEnded(ManagerCallback&& callback) override {
    if (manager_has_ended_) {
      callback(EndedManager::kOwn);
    } else {
      on_manager_ended_.push_back(std::move(callback));
    }
  }

  // On the thread of the link.
  void EndManager() {
    manager_has_ended_ = true;
    for (const ManagerCallback& callback : std::exchange(on_manager_ended_, {})) {
      callback(EndedManager::kOwn);
    }
  }

 private:
  const std::shared_ptr<vorpc::IOwnedClient> client_;
  vorpc::IRequests* const requests_;
  const std::string task_name_;
  std::vector<ManagerCallback> on_manager_ended_;
  bool manager_has_ended_ = false;
};

}  // namespace tarv::testing::details

#endif  // TARV_TESTING_SRC_LINK_CLIENT_H

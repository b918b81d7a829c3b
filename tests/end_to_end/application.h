// The application's side: a plug-in's objects over the real service, and tasks in processes of
// their own.
#ifndef END_TO_END_APPLICATION_H
#define END_TO_END_APPLICATION_H

#include <tarv/manager_wrapper.h>
#include <vorpc/client.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kit/service.h"

namespace tarv::test {

using OptionalError = std::optional<vorpc::Message::Error>;
using Response = vorpc::Message::Response;

// The folder of the library that this program is linked against.
std::string LibraryFolder();

// A client that keeps what it is told. The records stay when the client goes.
class Connection {
 public:
  struct Record {
    std::vector<OptionalError> connected;
    std::vector<OptionalError> disconnected;
    std::vector<Response> responses;
    std::vector<vorpc::Message::Notification> notifications;
  };

  explicit Connection(std::shared_ptr<vorpc::IClient> its_client);

  // Sends a request whose response joins the record.
  void Send(const std::string& method, const cw::EncodableValue& params = {});
  // Sends a request and waits for its response. Throws std::runtime_error when none comes.
  Response Call(const std::string& method, const cw::EncodableValue& params = {});
  // The result of such a call. Throws std::runtime_error for an error.
  cw::EncodableValue Ask(const std::string& method, const cw::EncodableValue& params = {});
  // Makes notifications of this method join the record.
  void Hear(const std::string& method);

  // Runs the client and waits until it has connected.
  bool Connect();
  bool WaitForConnected() const;
  bool WaitForDisconnected() const;
  bool WaitForResponses(std::size_t count) const;
  bool WaitForNotifications(std::size_t count) const;

  std::shared_ptr<vorpc::IClient> client;
  std::shared_ptr<Record> record = std::make_shared<Record>();
};

// Gives each test a manager in an application, and fails it when it leaves something behind.
class EndToEndTest : public ServiceTest {
 protected:
  EndToEndTest();
  ~EndToEndTest() override;

  std::unique_ptr<Connection> Start(const std::string& task = "worker") const;
  // One that is connected. Throws std::runtime_error when that fails.
  std::unique_ptr<Connection> StartConnected(const std::string& task = "worker") const;

  // A file by which this process and the tasks tell each other something.
  std::filesystem::path Sign(const std::string& name) const { return folder_.GetPath() / name; }
  void Raise(const std::string& sign) const;
  bool WaitForSign(const std::string& name) const;

  std::unique_ptr<ManagerWrapper> manager_wrapper_;
};

}  // namespace tarv::test

#endif  // END_TO_END_APPLICATION_H

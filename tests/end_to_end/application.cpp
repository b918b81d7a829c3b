#include "application.h"

#include <quarn/dispatcher.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace tarv::test {
namespace {

std::string Describe(const Response& response) {
  std::ostringstream text;
  text << *response.GetError();
  return text.str();
}

}  // namespace

std::string LibraryFolder() { return LIBRARY_FOLDER; }

Connection::Connection(std::shared_ptr<vorpc::IClient> its_client) : client(std::move(its_client)) {
  client->OnConnected(
      [kept = record](const OptionalError& error) { kept->connected.push_back(error); });
  client->OnDisconnected(
      [kept = record](const OptionalError& error) { kept->disconnected.push_back(error); });
}

void Connection::Send(const std::string& method, const cw::EncodableValue& params) {
  client->SendRequest(method, params, [kept = record](const Response& response) {
    kept->responses.push_back(response);
  });
}

Response Connection::Call(const std::string& method, const cw::EncodableValue& params) {
  const auto answer = std::make_shared<std::optional<Response>>();
  client->SendRequest(method, params,
                      [answer](const Response& response) { answer->emplace(response); });
  if (!WaitUntil([&answer] { return answer->has_value(); })) {
    throw std::runtime_error("no answer to " + method);
  }
  return answer->value();
}

cw::EncodableValue Connection::Ask(const std::string& method, const cw::EncodableValue& params) {
  const Response response = Call(method, params);
  if (response.IsError()) {
    throw std::runtime_error(method + " fails: " + Describe(response));
  }
  return *response.GetResult();
}

void Connection::Hear(const std::string& method) {
  client->OnNotify(method, [kept = record](const vorpc::Message::Notification& notification) {
    kept->notifications.push_back(notification);
  });
}

bool Connection::Connect() {
  client->Run();
  return WaitForConnected() && !record->connected.front();
}

bool Connection::WaitForConnected() const {
  return WaitUntil([this] { return !record->connected.empty(); });
}

bool Connection::WaitForDisconnected() const {
  return WaitUntil([this] { return !record->disconnected.empty(); });
}

bool Connection::WaitForResponses(std::size_t count) const {
  return WaitUntil([this, count] { return record->responses.size() >= count; });
}

bool Connection::WaitForNotifications(std::size_t count) const {
  return WaitUntil([this, count] { return record->notifications.size() >= count; });
}

EndToEndTest::EndToEndTest()
    : manager_wrapper_(ManagerWrapper::Create(quarn::IDispatcher::CreateEmpty(), LibraryFolder())) {
}

EndToEndTest::~EndToEndTest() {
  manager_wrapper_.reset();
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); })) << "a task outlives its manager";
  // What awaits its deferred deletion needs the event loop, which goes with the fixture.
  constexpr std::chrono::milliseconds kDeletion(20);
  RunEvents(kDeletion);
}

std::unique_ptr<Connection> EndToEndTest::Start(const std::string& task) const {
  return std::make_unique<Connection>(manager_wrapper_->CreateIpcClient(task));
}

std::unique_ptr<Connection> EndToEndTest::StartConnected(const std::string& task) const {
  auto connection = Start(task);
  if (!connection->Connect()) {
    throw std::runtime_error("the task " + task + " does not connect");
  }
  return connection;
}

void EndToEndTest::Raise(const std::string& sign) const { std::ofstream(Sign(sign)) << "raised\n"; }

bool EndToEndTest::WaitForSign(const std::string& name) const {
  return WaitUntil([path = Sign(name)] { return std::filesystem::exists(path); });
}

}  // namespace tarv::test

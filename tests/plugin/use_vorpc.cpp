// JSON-RPC: messages, a client and a server that a plug-in joins itself, values as Qt's JSON.
#include <vorpc/client.h>
#include <vorpc/message.h>
#include <vorpc/qt/utils.h>
#include <vorpc/server.h>

#include <sstream>

#include "check.h"

namespace plugin {
namespace {

using cw::EncodableValue;
using vorpc::Message;

void UseMessages() {
  const Message::ID id("1");
  PLUGIN_CHECK(Message::ID::FromEncodable(id.ToEncodable()) == id);
  const Message request = Message::CreateRequest(id, "add", EncodableValue(1));
  PLUGIN_CHECK(request.IsRequest("add"));
  PLUGIN_CHECK(Message::FromBase64(request.ToBase64()) == request);
  PLUGIN_CHECK(Message::FromEncodable(request.ToEncodable()) == request);
  const EncodableValue map = request.ToEncodable();
  PLUGIN_CHECK(Message::FromEncodable(map) == request);
  PLUGIN_CHECK(request.IsResponseForThis(Message::CreateResponse(id, {})));
  PLUGIN_CHECK(Message::CreateNotification("tick", {}).GetNotification() != nullptr);
  std::ostringstream text;
  text << request << id << Message::Error(1, "bad");
  PLUGIN_CHECK(!text.str().empty());
}

void UseErrors() {
  const Message::ID id(std::int64_t{1});
  const Message::Error error(1, "bad");
  PLUGIN_CHECK(Message::CreateError(error) == Message::CreateError(1, "bad"));
  PLUGIN_CHECK(Message::CreateError(id, error) == Message::CreateError(id, 1, "bad"));
  const EncodableValue value = error.ToEncodable();
  PLUGIN_CHECK(Message::Error::FromEncodable(value).second == error);
  PLUGIN_CHECK(Message::Error::FromEncodable(error.ToEncodable()).first);
}

void Converse() {
  std::shared_ptr<vorpc::IOwnedClient> client;
  const auto server = vorpc::IOwnedServer::Create(
      [&client](Message&& message) { client->Receive(std::move(message)); });
  client = vorpc::IOwnedClient::Create(
      [&server](Message&& message) { server->Receive(std::move(message)); });
  server->OnRequest("add",
                    [](const auto&, const auto&, const std::unique_ptr<vorpc::IReply>& reply) {
                      PLUGIN_CHECK(!reply->GetRequestId().value.empty());
                      reply->SendResult(3);
                    });
  server->Run();
  client->SetStarted();
  client->Run();
  int sum = 0;
  client->SendRequest("add", {}, [&sum](const Message::Response& response) {
    sum = std::get<std::int32_t>(*response.GetResult());
  });
  PLUGIN_CHECK(sum == 3);
  client->Disconnect(std::nullopt);
  server->Abandon();
}

// What a plug-in's own test doubles derive from.
class OwnReply : public vorpc::IReply {
  void SendResult(EncodableValue) override {}
  void SendError(int, std::string_view, const EncodableValue&) override {}
};

class OwnServer : public vorpc::IServer {
  void SendNotify(std::string_view, const EncodableValue&) override {}
  void OnConnected(std::function<void(const std::optional<Message::Error>&)>&&) override {}
  void OnRequest(std::string_view, RequestHandler) override {}
  void OnNotify(std::string_view, std::function<void(const Message::Notification&)>&&) override {}
  void Run() override {}
};

class OwnClient : public vorpc::IClient {
  bool IsConnected() const override { return false; }
  bool HasConnectionFailed() const override { return false; }
  void Run() override {}
  void OnConnected(std::function<void(const std::optional<Message::Error>&)>&&) override {}
  void OnDisconnected(std::function<void(const std::optional<Message::Error>&)>&&) override {}
  void SendRequest(std::string_view, const EncodableValue&,
                   std::function<void(const Message::Response&)>&&) override {}
  void SendNotify(std::string_view, const EncodableValue&) override {}
  void OnNotify(std::string_view, std::function<void(const Message::Notification&)>&&) override {}
};

void UseJson() {
  QJsonValue json;
  PLUGIN_CHECK(vorpc::qt::EncodableToJson(EncodableValue("a"), json));
  EncodableValue value;
  PLUGIN_CHECK(vorpc::qt::JsonToEncodable(json, value) && *value.AsString() == "a");
  const cw::EncodableMap map{{"a", 1}};
  QJsonObject object;
  PLUGIN_CHECK(vorpc::qt::EncodableMapToJsonObject(map, object));
  cw::EncodableMap back;
  PLUGIN_CHECK(vorpc::qt::JsonObjectToEncodableMap(object, back));
  PLUGIN_CHECK(vorpc::qt::EncodableMapToJsonString(back) == QLatin1String(R"({"a":1})"));
}

}  // namespace

void UseVorpc() {
  UseMessages();
  UseErrors();
  Converse();
  const std::unique_ptr<vorpc::IClient> client = std::make_unique<OwnClient>();
  const std::unique_ptr<vorpc::IServer> server = std::make_unique<OwnServer>();
  const std::unique_ptr<vorpc::IReply> reply = std::make_unique<OwnReply>();
  PLUGIN_CHECK(!client->IsConnected());
  UseJson();
}

}  // namespace plugin

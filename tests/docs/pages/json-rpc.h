// What docs/json-rpc.md leaves out.
#include <vorpc/client.h>
#include <vorpc/requests.h>
#include <vorpc/server.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

using OnResponse = std::function<void(const vorpc::Message::Response&)>;
void to_client(const std::string& text);
void to_server(const std::string& text);
void Use(const cw::EncodableValue& value);
cw::EncodableValue Add(const cw::EncodableValue& numbers);

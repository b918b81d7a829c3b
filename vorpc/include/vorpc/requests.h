// A client's requests as a layer above needs them: with their ids, and with an end to waiting.
//
//   if (auto* const requests = dynamic_cast<vorpc::IRequests*>(client.get())) {
//     const vorpc::Message::ID id = requests->StartRequest("add", params, on_response);
//     requests->ForgetRequest(id);  // on_response is dropped
//   }
#ifndef VORPC_REQUESTS_H
#define VORPC_REQUESTS_H

#include <cw/encodable_value.h>
#include <quarn/export.h>
#include <vorpc/message.h>

#include <functional>
#include <string_view>

namespace vorpc {

// Implemented by every client of this library, beside IClient. Any thread.
class TARV_EXPORT IRequests {
 public:
  virtual ~IRequests();

  // As IClient::SendRequest, and returns the id of the request. `callback` may run before this
  // returns: once the client has ended it always does, and a transport may bring the response while
  // it sends.
  virtual Message::ID StartRequest(std::string_view method, const cw::EncodableValue& params,
                                   std::function<void(const Message::Response&)>&& callback) = 0;

  // Ends the wait for the response to the request with this id: its callback is dropped on this
  // thread without being called, and nothing of it is kept but its id. False when the request does
  // not wait any more: it is unknown, was forgotten before, or its callback runs or has run.
  //
  // This tells the peer nothing: a request that is still held back goes out all the same once the
  // connection stands. A response that comes later is dropped without a line of the log, for the
  // 1024 requests of the client that were forgotten last; for older ones it leaves the warning of
  // a message that nobody waits for.
  virtual bool ForgetRequest(const Message::ID& id) = 0;
};

}  // namespace vorpc

#endif  // VORPC_REQUESTS_H

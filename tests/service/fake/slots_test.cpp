// The slots that the service was handed, as objects: each callback with its user data, until they
// are given back.

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "rpc_client_impl.h"
#include "rpc_server_impl.h"

namespace tarv::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Log = std::vector<std::string>;

template <class Slots>
Slots MakeSlots(Log& log) {
  Slots slots{};
  slots.size = sizeof(slots);
  slots.OnStarted = [](void* lines, int code, const char* text, std::size_t chunk) {
    static_cast<Log*>(lines)->push_back("started " + std::to_string(code) + text +
                                        std::to_string(chunk));
  };
  slots.OnMessage = [](void* lines, const char* text, std::size_t chunk) {
    static_cast<Log*>(lines)->push_back(std::string("message ") + text + std::to_string(chunk));
  };
  slots.Release = [](void* lines) { static_cast<Log*>(lines)->push_back("released"); };
  slots.user_data = &log;
  return slots;
}

TARVRpcClientSlots MakeClientSlots(Log& log) {
  auto slots = MakeSlots<TARVRpcClientSlots>(log);
  slots.OnDisconnect = [](void* lines, int code, const char* text, std::size_t chunk) {
    static_cast<Log*>(lines)->push_back("disconnected " + std::to_string(code) + text +
                                        std::to_string(chunk));
  };
  return slots;
}

// Calls whatever the slots can be called for.
void CallAll(const RpcClientListener& listener) {
  listener.OnStarted(1, " a ", 2);
  listener.OnMessage("b ", 3);
  listener.OnDisconnect(4, " c ", 5);
}
void CallAll(const RpcServerListener& listener) {
  listener.OnStarted(1, " a ", 2);
  listener.OnMessage("b ", 3);
}

TEST(ClientSlots, PassOnWhatTheyAreToldUntilTheyAreReleased) {
  Log log;
  TARVRpcClientSlots slots = MakeClientSlots(log);
  const auto listener = RpcClientListener::Create(&slots);
  CallAll(*listener);
  listener->Release();
  EXPECT_THAT(log, ElementsAre("started 1 a 2", "message b 3", "disconnected 4 c 5", "released"));
}

TEST(ClientSlots, AreForgottenWhenTheyAreReleased) {
  Log log;
  TARVRpcClientSlots slots = MakeClientSlots(log);
  auto listener = RpcClientListener::Create(&slots);
  listener->Release();
  log.clear();
  CallAll(*listener);
  listener->Release();
  listener.reset();
  EXPECT_THAT(log, IsEmpty());
}

TEST(ClientSlots, AreForgottenWithoutACallWhenTheyAreDisowned) {
  Log log;
  TARVRpcClientSlots slots = MakeClientSlots(log);
  auto listener = RpcClientListener::Create(&slots);
  listener->Disown();
  CallAll(*listener);
  listener.reset();
  EXPECT_THAT(log, IsEmpty());
}

TEST(ServerSlots, PassOnWhatTheyAreToldUntilTheyAreReleased) {
  Log log;
  auto slots = MakeSlots<TARVRpcServerSlots>(log);
  const auto listener = RpcServerListener::Create(&slots);
  CallAll(*listener);
  listener->Release();
  EXPECT_THAT(log, ElementsAre("started 1 a 2", "message b 3", "released"));
}

TEST(ServerSlots, AreForgottenWhenTheyAreReleased) {
  Log log;
  auto slots = MakeSlots<TARVRpcServerSlots>(log);
  auto listener = RpcServerListener::Create(&slots);
  listener->Release();
  log.clear();
  CallAll(*listener);
  listener->Release();
  listener.reset();
  EXPECT_THAT(log, IsEmpty());
}

}  // namespace
}  // namespace tarv::test

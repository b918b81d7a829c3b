// Drives the service through its C interface, on a Qt event loop, with real task processes.
#ifndef KIT_SERVICE_H
#define KIT_SERVICE_H

#include <gtest/gtest.h>
#include <tarv/tarv_capi.h>

#include <QCoreApplication>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "surroundings.h"

namespace tarv::test {

// Long enough for a loaded machine under a sanitizer; a test that waits this long has failed.
constexpr std::chrono::seconds kPatience{120};

// Where the tests' own tasks lie.
std::string TaskFolder();

// Runs the event loop until `condition` holds. False when patience ends first.
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = kPatience);

// Runs the event loop for a while: for what must not happen.
void RunEvents(std::chrono::milliseconds duration);

// The tables of libtarv.so, loaded.
struct Tables {
  Tables();

  TARVProcTable root{};
  TARVRpcClientProcTable client{};
  TARVRpcServerProcTable server{};
};

struct Event {
  enum Kind { kStarted, kDisconnect, kMessage, kReleased };
  Kind kind;
  int code;
  std::string text;
  std::size_t chunk;
};

// A client that records what its slots hear and unlocks every chunk.
class Client {
 public:
  Client(const Tables& tables, _TARVManagerRef* manager);

  QuarnResult Start(const std::string& task, const std::string& libs_path = "/libraries");
  QuarnResult Send(const std::string& text) const {
    return tables_.client.SendMessage(handle, text.c_str());
  }
  void Release() const { tables_.client.Release(handle); }

  TARVRpcClientSlots MakeSlots();
  std::size_t Count(Event::Kind kind) const;
  // The latest event of a kind, which must exist.
  const Event& Last(Event::Kind kind) const;
  std::vector<std::string> Messages() const;

  bool WaitForStart() const;
  bool WaitForMessages(std::size_t count) const;
  bool WaitFor(Event::Kind kind) const;

  _TARVRpcClientRef* handle;
  std::vector<Event> events;
  bool unlock = true;
  std::function<void(const Event&)> on_event;  // called after the event is recorded

 private:
  void Record(Event event);

  const Tables& tables_;
};

// A fixture that gives each test a Qt application, a manager and a private runtime folder, and
// fails it when it leaves a descriptor, a process or a socket behind.
class ServiceTest : public testing::Test {
 protected:
  ServiceTest();
  ~ServiceTest() override;

  // A client made by the manager; lives until the test ends.
  Client& NewClient();
  // One whose task runs.
  Client& NewRunningClient(const std::string& task);

  ScopedVariable task_path_;
  RuntimeFolder folder_;
  QCoreApplication application_;
  Tables tables_;
  _TARVManagerRef* manager_;

 private:
  std::size_t descriptors_before_;
  std::vector<std::unique_ptr<Client>> clients_;
};

}  // namespace tarv::test

#endif  // KIT_SERVICE_H

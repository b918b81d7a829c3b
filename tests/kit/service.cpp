#include "service.h"

#include <QDeadlineTimer>
#include <QEvent>
#include <QEventLoop>
#include <QTimer>
#include <algorithm>
#include <memory>
#include <stdexcept>

namespace tarv::test {
namespace {

int argument_count = 1;
char program_name[] = "service_tests";
char* arguments[] = {program_name, nullptr};

template <class Load, class Table>
void LoadTable(Load load, Table& table) {
  if (load(&table, sizeof(table)) != QUARN_RESULT_SUCCESS) {
    throw std::runtime_error("a table does not load");
  }
}

}  // namespace

std::string TaskFolder() { return TEST_TASK_FOLDER; }

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const QDeadlineTimer deadline(limit);
  QTimer wake;  // so that a condition that no event announces is looked at all the same
  wake.start(10);
  while (true) {
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    if (condition()) {
      return true;
    }
    if (deadline.hasExpired()) {
      return false;
    }
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
  }
}

void RunEvents(std::chrono::milliseconds duration) {
  WaitUntil([] { return false; }, duration);
}

Tables::Tables() {
  LoadTable(&TARVProcTableLoad, root);
  LoadTable(root.RpcClientProcTableLoad, client);
  LoadTable(root.RpcServerProcTableLoad, server);
}

Client::Client(const Tables& tables, _TARVManagerRef* manager)
    : handle(tables.root.CreateRpcClient(manager)), tables_(tables) {}

TARVRpcClientSlots Client::MakeSlots() {
  TARVRpcClientSlots callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.OnStarted = [](void* self, int code, const char* text, std::size_t chunk) {
    static_cast<Client*>(self)->Record({Event::kStarted, code, text, chunk});
  };
  callbacks.OnDisconnect = [](void* self, int code, const char* text, std::size_t chunk) {
    static_cast<Client*>(self)->Record({Event::kDisconnect, code, text, chunk});
  };
  callbacks.OnMessage = [](void* self, const char* text, std::size_t chunk) {
    static_cast<Client*>(self)->Record({Event::kMessage, 0, text, chunk});
  };
  callbacks.Release = [](void* self) {
    static_cast<Client*>(self)->Record({Event::kReleased, 0, "", 0});
  };
  callbacks.user_data = this;
  return callbacks;
}

void Client::Record(Event event) {
  if (unlock) {
    tables_.client.UnlockResources(handle, event.chunk);
  }
  events.push_back(std::move(event));
  if (on_event) {
    on_event(Event(events.back()));
  }
}

QuarnResult Client::Start(const std::string& task, const std::string& libs_path) {
  TARVRpcClientSlots callbacks = MakeSlots();
  return tables_.client.StartTask(handle, task.c_str(), libs_path.c_str(), &callbacks);
}

std::size_t Client::Count(Event::Kind kind) const {
  return static_cast<std::size_t>(std::count_if(
      events.begin(), events.end(), [kind](const Event& event) { return event.kind == kind; }));
}

const Event& Client::Last(Event::Kind kind) const {
  const auto found = std::find_if(events.rbegin(), events.rend(),
                                  [kind](const Event& event) { return event.kind == kind; });
  if (found == events.rend()) {
    throw std::logic_error("the client has heard of no such event");
  }
  return *found;
}

std::vector<std::string> Client::Messages() const {
  std::vector<std::string> texts;
  for (const Event& event : events) {
    if (event.kind == Event::kMessage) {
      texts.push_back(event.text);
    }
  }
  return texts;
}

bool Client::WaitFor(Event::Kind kind) const {
  return WaitUntil([this, kind] { return Count(kind) > 0; });
}

bool Client::WaitForStart() const {
  return WaitFor(Event::kStarted) && Last(Event::kStarted).code == 0;
}

bool Client::WaitForMessages(std::size_t count) const {
  return WaitUntil([this, count] { return Count(Event::kMessage) >= count; });
}

ServiceTest::ServiceTest()
    : task_path_("RUNTIME_MANAGER_TASK_PATH", TaskFolder()),
      application_(argument_count, arguments),
      manager_(tables_.root.Initialize()) {
  RunEvents(std::chrono::milliseconds(0));  // the event loop opens its own descriptors
  descriptors_before_ = CountDescriptors();
}

ServiceTest::~ServiceTest() {
  tables_.root.Release(manager_);
  EXPECT_TRUE(WaitUntil([] { return Children().empty(); })) << "a process is left behind";
  EXPECT_TRUE(WaitUntil([this] { return CountDescriptors() <= descriptors_before_; }))
      << "a descriptor is left open";
  EXPECT_TRUE(SocketsBelow(folder_.GetPath()).empty()) << "a socket file is left behind";
}

Client& ServiceTest::NewClient() {
  return *clients_.emplace_back(std::make_unique<Client>(tables_, manager_));
}

Client& ServiceTest::NewRunningClient(const std::string& task) {
  Client& client = NewClient();
  EXPECT_EQ(client.Start(task), QUARN_RESULT_SUCCESS);
  EXPECT_TRUE(client.WaitForStart());
  return client;
}

}  // namespace tarv::test

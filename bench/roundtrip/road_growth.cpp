// What a request costs when there are many tasks, many requests under way, or many locked chunks.
#include <tarv/tarv_capi.h>
#include <vorpc/message.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <cerrno>
#include <memory>
#include <vector>

#include "road.h"

namespace bench {
namespace {

// Enough for a median; the cases need many tasks and much memory before they begin.
constexpr std::size_t kRequests = 5000;
constexpr std::size_t kWarmupRequests = 500;

void ReportMedian(const LatencyRun& run, const std::string& kase, const std::string& peer) {
  Record({"W", kase, peer}, "median", run.MedianUs(), "us");
}

void MeasureSmall(Road& road, const std::string& kase, const std::string& peer) {
  LatencyRun run(kWarmupRequests, kRequests, {});
  road.RunSmall(run);
  ReportMedian(run, kase, peer);
}

void GrowTasks() {
  const std::string kase = "a request, one in flight, beside idle tasks";
  const auto manager = MakeManager();
  std::vector<std::unique_ptr<Road>> roads;
  for (const std::size_t count : {1U, 8U, 64U, 500U}) {
    while (roads.size() < count) {
      roads.push_back(std::make_unique<Road>(*manager));
    }
    MeasureSmall(*roads.front(), kase, std::to_string(count) + " tasks");
    MeasureSmall(*roads.back(), kase, std::to_string(count) + " tasks, the newest asked");
  }
}

void GrowPending() {
  const std::string kase = "a request, one in flight, beside unanswered ones";
  const auto manager = MakeManager();
  Road road(*manager);
  std::size_t pending = 0;
  for (const std::size_t count : {0U, 1000U, 100'000U}) {
    for (; pending < count; ++pending) {
      road.Client().SendRequest("hold", {}, [](const auto&) {});
    }
    road.Ask("process");
    MeasureSmall(road, kase, std::to_string(count) + " unanswered");
  }
}

// A client of the C interface that can keep the chunks of what it receives.
class ChunkKeeper {
 public:
  ChunkKeeper();
  ~ChunkKeeper() { client_table_.Release(client_); }
  ChunkKeeper(const ChunkKeeper&) = delete;
  ChunkKeeper& operator=(const ChunkKeeper&) = delete;

  // Sends a request and waits for the text of its answer, whose chunk is kept or unlocked.
  void Ask(const vorpc::Message& request, bool keep);

 private:
  static void OnStarted(void* self, int code, const char* message, std::size_t chunk);
  static void OnMessage(void* self, const char* message, std::size_t chunk);

  TARVProcTable root_{};
  TARVRpcClientProcTable client_table_{};
  _TARVRpcClientRef* client_ = nullptr;
  QEventLoop loop_;
  bool keep_ = false;
};

ChunkKeeper::ChunkKeeper() {
  errno = 0;
  TARVProcTableLoad(&root_, sizeof(root_));
  root_.RpcClientProcTableLoad(&client_table_, sizeof(client_table_));
  client_ = root_.CreateRpcClient(root_.Initialize());
  TARVRpcClientSlots callbacks{};
  callbacks.size = sizeof(callbacks);
  callbacks.OnStarted = &OnStarted;
  callbacks.OnMessage = &OnMessage;
  callbacks.user_data = this;
  if (client_table_.StartTask(client_, kTask, LibraryFolder().c_str(), &callbacks) != 0) {
    Die("the task does not start");
  }
  loop_.exec();
  Ask(vorpc::Message::CreateRequest(vorpc::Message::ID("0"), "vorpc.connected", {}), false);
}

void ChunkKeeper::OnStarted(void* self, int code, const char* message, std::size_t /*chunk*/) {
  if (code != 0) {
    Die(message);
  }
  static_cast<ChunkKeeper*>(self)->loop_.quit();
}

void ChunkKeeper::OnMessage(void* self, const char* /*message*/, std::size_t chunk) {
  auto* const keeper = static_cast<ChunkKeeper*>(self);
  if (!keeper->keep_) {
    keeper->client_table_.UnlockResources(keeper->client_, chunk);
  }
  keeper->loop_.quit();
}

void ChunkKeeper::Ask(const vorpc::Message& request, bool keep) {
  keep_ = keep;
  client_table_.SendMessage(client_, request.ToBase64().c_str());
  loop_.exec();
}

void GrowChunks() {
  const std::string kase = "a text, one in flight, beside locked chunks";
  const auto manager = MakeManager();
  ChunkKeeper keeper;
  const auto request = vorpc::Message::CreateRequest(vorpc::Message::ID("1"), "echo_integer",
                                                     cw::EncodableMap{{"n", 1}});
  std::size_t kept = 0;
  for (const std::size_t count : {0U, 100U, 10'000U}) {
    for (; kept < count; ++kept) {
      keeper.Ask(request, true);
    }
    LatencyRun run(kWarmupRequests, kRequests, {});
    do {
      run.Start();
      keeper.Ask(request, false);
    } while (run.Stop());
    ReportMedian(run, kase, std::to_string(count) + " locked chunks");
  }
}

}  // namespace

void MeasureGrowth() {
  GrowTasks();
  GrowPending();
  GrowChunks();
}

}  // namespace bench
